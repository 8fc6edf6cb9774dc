// Datagrams to the service manager.
#pragma once

// What sd_notify(3) describes: a state such as "READY=1" is one datagram to the socket that
// NOTIFY_SOCKET names. The library that does this would bring more code than the programs that need
// it have, and is not in every system. Owns one descriptor; prints nothing. For one thread.
class CNotifySocket {
public:
    CNotifySocket() = default;
    ~CNotifySocket();
    CNotifySocket(const CNotifySocket&) = delete;
    CNotifySocket& operator=(const CNotifySocket&) = delete;

    // Opens the socket for an address as in NOTIFY_SOCKET: a path, or '@' and a name without a
    // file. False without an address (null) or on failure: Send() does nothing then.
    bool Open(const char* address);

    // Sends the state. Never waits: false if the manager can't take it now.
    bool Send(const char* state) const;

    bool IsOpen() const { return m_nSocket != -1; }

private:
    int m_nSocket = -1;
};

// The value of WATCHDOG_USEC in milliseconds, if it is for this process: the manager expects a sign
// of life this often. 0 if there is none.
long long watchdog_ms();
