// A connection to the control server for programs with a loop of their own.
#pragma once

#include <poll.h>

#include <chrono>
#include <string>

#include "net/SvcAddress.h"
#include "tools/base/Descriptor.h"
#include "tools/base/LineBuffer.h"

// Connects, sends lines and cuts what arrives into lines. Speaks with any server of control lines,
// with remote GPIO servers too. Never waits but in Wait(); nothing is thrown and no signal raised.
// What goes wrong closes the connection and is told by Problem(). For one thread.
//
// In a loop: wait until GetDescriptor() is ready for Events() or Deadline() has come, call Serve(),
// then take lines with Next() until there is none.
class TqrdClient {
public:
    using Clock = std::chrono::steady_clock;

    // Begins to connect to the server, within the limit, in place of any connection before. What
    // was received and not taken yet is dropped.
    void Connect(const CSvcAddress& server, std::chrono::milliseconds limit);

    // Ends the connection. Problem() stays as it is.
    void Close();

    // Connecting, or connected.
    bool IsOpen() const { return m_socket.IsOpen(); }
    bool IsConnected() const { return IsOpen() && !m_connecting; }

    // Why the connection could not be made or ended, "Connection refused" for instance, and the
    // system's error number: ETIMEDOUT when the limit passed, 0 when the server closed or broke
    // the rules. Empty and 0 until something went wrong.
    const std::string& Problem() const { return m_problem; }
    int Error() const { return m_error; }

    // Sends the line; the line end is added. Lines wait for the connection, and for a server that
    // is slow to read, up to 64 KiB.
    void Send(const std::string& line);

    // For poll() and its like: the socket, -1 when closed; POLLIN, POLLOUT or both; when Serve()
    // must be called at the latest, time_point::max() for no limit.
    int GetDescriptor() const { return m_socket.Get(); }
    short Events() const;
    Clock::time_point Deadline() const;

    // Does what can be done without waiting: goes on connecting, sends, receives. May be called at
    // any time.
    void Serve();

    // Takes the next line, without its end. False when no whole line is left. Lines that came
    // before the connection ended can be taken after it.
    bool Next(std::string& line);

    // For programs without a loop: waits for the next line until then. False when none came.
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
