// The connection to an MQTT broker, which is renewed whenever it ends.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tools/base/Descriptor.h"
#include "tools/base/Time.h"
#include "tools/mqtt/ClientPacket.h"
#include "tools/mqtt/Config.h"

// For a program with a loop: wait until Socket() has one of Events() or NextTime() has come, then
// call Serve(); call Flush() before you wait. Nothing here waits, except Leave().
//
// Each connection is a process of its own (Client.h): nothing that a broker sends ends the program.
// A connection inherits nothing from the one before: sessions end with them, so that the broker
// stores nothing for later.
//
// With "broker none" it is one itself, for this bridge alone: what is published comes back if it is
// subscribed, in the next turn. Wildcards match nothing there.
class Broker {
public:
    struct Message {
        std::string topic;
        std::string payload;
        bool retained = false;
        std::string response_topic;  // empty: no answer is wanted
        std::string correlation;
        std::optional<uint32_t> expiry;  // seconds until it expires
    };

    struct Outgoing {
        std::string topic;
        std::string payload;
        bool retain = false;
        bool acknowledged = false;  // the broker shall confirm it
        std::string correlation;
    };

    // A guest leaves no will: that it ends says nothing about the site.
    enum class As { Bridge, Guest };

    // Progress is reported as a text whenever it differs from the last one.
    Broker(const MqttConfig& config, std::function<void(const std::string&)> tell,
           As as = As::Bridge);
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    int Socket() const { return m_socket.Get(); }  // -1: none
    short Events() const;
    TimePoint NextTime() const { return m_is_local && !m_inbox.empty() ? Now() : m_next; }

    // Received messages are in Inbox() and Acknowledged() afterwards.
    void Serve(bool readable, bool writable);

    // 0 without a connection, else a different number for each.
    unsigned int Connection() const { return m_is_connected || m_is_local ? m_connection : 0; }

    // Passes to the client what was published and subscribed since the last call, all at once.
    void Flush();

    // Connections and messages that were published, since the start.
    uint64_t Connections() const { return m_connections; }
    uint64_t Published() const { return m_published; }

    // Whether the client accepts more at the moment: otherwise published messages pile up.
    bool CanSend() const { return m_is_local || (m_is_connected && m_unsent.empty()); }

    // Returns the number of the acknowledgement. A topic with wildcards is acknowledged, not
    // published. Without a connection, nothing is published or subscribed.
    uint32_t Publish(const Outgoing& message);

    // Options of subscriptions. Without the first one, only messages that the broker had retained
    // before are marked as retained, not those that it retains from now on.
    static constexpr int RETAINED_AS_PUBLISHED = 0x08;
    static constexpr int NO_LOCAL = 0x04;  // not what this bridge publishes

    void Subscribe(const std::string& topic, int options = 0);
    void Unsubscribe(const std::string& topic);

    // A message has come back: from now on the broker is tried again without delay.
    void Proved() { m_pause = FIRST_PAUSE; }

    // Ends this connection for that reason; the next one is made after a pause.
    void Drop(const std::string& reason);

    // Says goodbye, so that the broker does not publish the will.
    void Leave();

    std::deque<Message>& Inbox() { return m_inbox; }
    std::deque<uint32_t>& Acknowledged() { return m_acknowledged; }

private:
    static constexpr double FIRST_PAUSE = 0.1;  // seconds, before the second attempt

    void Connect();
    void Take(const ClientPacket& packet);
    void TakeMessage(const ClientPacket& packet);
    bool TakeFromClient();
    void Send(const ClientPacket& packet);
    void Close();
    std::string CrashText();
    void Tell(const std::string& text);

    const MqttConfig& m_config;
    const std::function<void(const std::string&)> m_tell;
    const As m_as;
    const std::string m_name;  // of the client, which nobody else has
    const bool m_is_local;
    std::set<std::string> m_subscribed;  // only without a real broker
    Descriptor m_socket;                 // to the client
    pid_t m_client = 0;
    std::string m_batch;               // to be sent at the next Flush()
    std::deque<std::string> m_unsent;  // what the client's socket had no room for
    unsigned int m_connection = 0;
    bool m_is_connected = false;
    uint64_t m_connections = 0;
    uint64_t m_published = 0;
    uint32_t m_number = 0;  // of the last message
    std::string m_last_told;
    double m_pause = FIRST_PAUSE;
    TimePoint m_next;  // when to connect, or to give up connecting
    std::minstd_rand m_random;
    std::deque<Message> m_inbox;
    std::deque<uint32_t> m_acknowledged;
};
