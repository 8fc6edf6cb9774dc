// Tells the service manager how the program is.
#pragma once

#include <chrono>
#include <string>

#include "net/NotifySocket.h"
#include "tools/base/Time.h"

// For units of Type=notify. Without NOTIFY_SOCKET, all functions do nothing. In a loop: wait until
// NextTime() at the latest, and call Beat() in every turn: the manager then restarts a program
// whose loop hangs. Never waits, throws nothing. For one thread.
class Notify {
public:
    // Reads NOTIFY_SOCKET and WATCHDOG_USEC.
    Notify();

    // The program now does what it is for. Call it once.
    void Ready();

    // What "systemctl status" shows: one line in plain words. Sent if it differs from the last one.
    void Status(const std::string& text);

    // The program ends on its own account, or on a signal.
    void Stopping();

    // Gives a sign of life if it is due.
    void Beat();

    // When Beat() has to be called next; TimePoint::max() if nobody expects it.
    TimePoint NextTime() const { return m_next; }

private:
    CNotifySocket m_socket;
    std::chrono::milliseconds m_period{0};
    TimePoint m_next = TimePoint::max();
    std::string m_status;
};
