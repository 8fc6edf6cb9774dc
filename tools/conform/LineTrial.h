// The daemon's end of a connection of control lines, with a record of what was said.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>

#include "tools/conform/Duty.h"
#include "tools/tqrd/ChannelTable.h"
#include "tools/tqrd/TqrdClient.h"

// The record holds what was sent since the last Send(), and what came since. Nothing is thrown: a
// connection that ends is a part of the record.
class LineTrial {
public:
    using Clock = TqrdClient::Clock;
    using Wanted = std::function<bool(const std::string& line)>;

    // Tells what is wrong with a line; empty: nothing.
    using Critic = std::string (*)(const std::string& line);

    LineTrial(const CSvcAddress& server, std::chrono::milliseconds limit, Critic critic);

    // Makes a connection, and ends the one before. What was told on that is forgotten.
    bool Connect();
    void Cut() { m_client.Close(); }

    // Sends lines, separated by line feeds, in one piece; the line end of the last is added.
    void Send(const std::string& lines);

    // Sends bytes as they are.
    void SendPiece(const std::string& bytes);

    // Takes lines until one is wanted, in the time of the limit or in that one; false if none came.
    bool Await(const Wanted& wanted);
    bool Await(const Wanted& wanted, std::chrono::milliseconds time);

    // Takes lines for that long, or until the connection has been silent for a moment.
    void Listen(std::chrono::milliseconds time);
    void AwaitSilence();

    bool IsOpen() const { return m_client.IsOpen(); }
    const TqrdClient& Client() const { return m_client; }
    std::chrono::milliseconds Limit() const { return m_limit; }

    // What this connection told last: by number, the text behind "GPI n " and "GPO n ".
    const std::string& Input(int number) { return m_inputs[number]; }
    const std::string& Output(int number) { return m_outputs[number]; }
    const ChannelTable& Table() const { return m_table; }

    // The lines of the record that begin with the text, each with an end.
    std::string Seen(const std::string& beginning = {}) const;

    // The record against what was expected.
    Outcome Missed(const std::string& expected) const;

    // The first line with a fault, of all connections.
    const Outcome& Fault() const { return m_fault; }

private:
    void Take(const std::string& line);

    const CSvcAddress m_server;
    const std::chrono::milliseconds m_limit;
    const Critic m_critic;
    TqrdClient m_client;
    ChannelTable m_table;
    std::map<int, std::string> m_inputs;
    std::map<int, std::string> m_outputs;
    std::string m_sent;
    std::string m_seen;
    Outcome m_fault;
};

// What both kinds of servers owe: a length, no NUL. Empty: no fault.
std::string LengthFault(const std::string& line);

// Whether the line is "WORD number STATE" with one blank before the state, which is begun by a
// level.
bool IsState(const std::string& line, const char* word, int highest);
