// A control server: a DeviceState behind TCP connections that exchange control lines.
#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <bitset>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "tools/base/Descriptor.h"
#include "tools/base/LineBuffer.h"
#include "tools/server/Address.h"
#include "tools/server/DeviceState.h"

// Serves a device with one state to any number of clients on any number of addresses. For one
// thread: it works only inside its calls and blocks only in Step(), so several servers, and other
// descriptors, fit into one poll loop:
//
//     std::vector<pollfd> fds;
//     server.AddDescriptors(fds);
//     poll(fds.data(), fds.size(), server.Timeout(limit));
//     server.Serve(fds);
//
// Clients can neither harm nor delay it: a client whose line is too long, or that does not read its
// output, is dropped.
class ControlServer {
public:
    static constexpr size_t MAX_CLIENTS = 500;
    static constexpr size_t MAX_OUTPUT = 262144;  // bytes that a client may leave unread

    enum class EventKind { Connected, Disconnected, Received, Sent, Problem };

    struct Event {
        EventKind kind;
        std::string peer;  // "IP:PORT" of the client, or of the listener with the problem
        std::string text;  // the line without its end; the bytes of SendRaw(); or what happened
    };

    // Is called for each event, in order. May call everything of the server except Step(),
    // StepAll() and Serve().
    using Observer = std::function<void(const Event&)>;

    // Is called with the number of an output after its pins have changed, before the clients are
    // told. The same rules as for an observer.
    using Driver = std::function<void(int number)>;

    // A server with a driver has real pins. It follows the configuration line of each output with
    // the state, and subscribes the client to the input if the source is on the bus: a daemon that
    // has lost its connection asks for the configuration, but does not subscribe again.
    explicit ControlServer(Observer observer = nullptr, Driver driver = nullptr);

    // Also listens on this IPv4 address (a dotted quad) and port, and returns the port: 0 chooses a
    // free one. Throws std::system_error on failure.
    uint16_t Listen(const std::string& ip, uint16_t port, const ListenAccess& access = {});

    // Stops listening there and closes the connections that were made there.
    void EndListening(const std::string& ip, uint16_t port);

    // The port that the last Listen() returned. Close() does not change it, so that Listen(ip,
    // Port()) restores the server.
    uint16_t Port() const { return m_port; }

    // Carries out a line of the operator (see DeviceState::Apply) and sends the changes to the
    // clients. Returns why the line was refused, or an empty text.
    std::string Apply(const std::string& line);

    // The pins of an output that exist, see DeviceState::SetPresent.
    void SetPresent(int number, std::bitset<DeviceState::PINS> pins);

    // Does not tell the clients, as there is no line for it.
    void Forget(const std::string& setting) { m_device.Forget(setting); }

    // Sends bytes unchanged to every client.
    void SendRaw(const std::string& bytes);

    // Closes all connections. Clients may connect again.
    void DropAll();

    // Closes all connections and stops listening. The device keeps its state.
    void Close();

    size_t ClientCount() const;
    const DeviceState& Device() const { return m_device; }

    // A line about each client: its address and its subscriptions ("127.0.0.1:4711 GPI 3").
    std::vector<std::string> DescribeClients() const;

    // Waits at most timeout milliseconds (-1: no limit) for events, and handles them.
    void Step(int timeout) { StepAll({this}, timeout); }

    // The same for several servers at once.
    static void StepAll(const std::vector<ControlServer*>& servers, int timeout);

    // The three parts of a turn, for loops that wait for other descriptors too. Serve() ignores
    // descriptors that are not the server's own.
    void AddDescriptors(std::vector<pollfd>& fds) const;
    int Timeout(int limit) const;
    void Serve(const std::vector<pollfd>& fds);

private:
    struct Listener {
        Descriptor socket;
        std::string address;
        ListenAccess access;
    };
    struct Connection {
        Descriptor socket;
        std::string peer;
        std::string address;  // of the listener
        bool inputs_only = false;
        LineBuffer input;
        std::string output;  // accepted for sending, not yet passed to the system
        DeviceState::InputSet subscriptions;
    };
    using Clock = DeviceState::Clock;

    void Accept(Listener& listener);
    std::string RefusalOf(const Listener& listener, const sockaddr_in& peer) const;
    void AddConnection(Descriptor socket, const std::string& peer, const Listener& listener);
    void Receive(Connection& client);
    void HandleLine(Connection& client, const std::string& line);
    void SendLine(Connection& client, const std::string& line);
    void SendBytes(Connection& client, const std::string& bytes);
    void Flush(Connection& client);
    void SendStates(Connection& client);
    void Broadcast(const std::vector<std::string>& lines);
    void ShowOutput(int number);
    void ReportInput(int number);
    void Disconnect(Connection& client, const std::string& reason);
    void Tell(EventKind kind, const std::string& peer, const std::string& text) const;

    Observer m_observer;
    Driver m_driver;
    DeviceState m_device;
    uint16_t m_port = 0;
    Clock::time_point m_accept_after;  // a pause, if the system had no descriptor left

    // Closed ones stay in these lists until the end of Serve(), which may be using them.
    std::list<Listener> m_listeners;
    std::list<Connection> m_clients;
};
