// A connection to the control server for programs with a loop of their own.
#pragma once

#include <poll.h>

#include <chrono>
#include <string>

#include "net/SvcAddress.h"
#include "tools/base/Descriptor.h"
#include "tools/base/LineBuffer.h"

// Connects, sends lines and splits what arrives into lines. Works with any server of control lines,
// including remote GPIO servers. Waits only in Wait(); throws nothing and raises no signal. A
// failure closes the connection, and so does a server whose host has vanished, after 20 seconds;
// see Problem(). For one thread.
//
// In a loop: wait until GetDescriptor() is ready for Events() or Deadline() has come, call Serve(),
// then take lines with Next() until there is none.
class TqrdClient {
public:
    using Clock = std::chrono::steady_clock;

    // Starts to connect to the server, within the limit, replacing any earlier connection. Lines
    // that were received but not taken are dropped.
    void Connect(const CSvcAddress& server, std::chrono::milliseconds limit);

    // Closes the connection. Problem() does not change.
    void Close();

    // Connecting, or connected.
    bool IsOpen() const { return m_socket.IsOpen(); }
    bool IsConnected() const { return IsOpen() && !m_connecting; }

    // Why the connection failed or ended, "Connection refused" for instance, and the system's error
    // number: ETIMEDOUT after the limit, 0 if the server closed the connection or violated the
    // protocol. Empty and 0 without a failure.
    const std::string& Problem() const { return m_problem; }
    int Error() const { return m_error; }

    // Sends the line and a line end. Lines wait for the connection, and for a server that reads
    // slowly, up to 64 KiB.
    void Send(const std::string& line);

    // The same without a line end.
    void SendBytes(const std::string& bytes);

    // For poll(): the socket, -1 if closed; POLLIN, POLLOUT or both; when to call Serve() at the
    // latest, time_point::max() for no limit.
    int GetDescriptor() const { return m_socket.Get(); }
    short Events() const;
    Clock::time_point Deadline() const;

    // Does what is possible without waiting: continues to connect, sends, receives. May be called
    // at any time.
    void Serve();

    // Takes the next line, without its end. False if no complete line is left. Lines that arrived
    // before the connection ended can still be taken.
    bool Next(std::string& line);

    // For programs without a loop: waits for the next line until then. False if none came.
    bool Wait(std::string& line, Clock::time_point until);

private:
    void FinishConnecting();
    void Flush();
    void Receive();
    void Fail(int error, const std::string& problem = {});

    Descriptor m_socket;
    bool m_connecting = false;
    Clock::time_point m_deadline;
    LineBuffer m_input;
    std::string m_output;
    std::string m_problem;
    int m_error = 0;
};
