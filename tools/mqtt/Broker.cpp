#include "tools/mqtt/Broker.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <utility>

#include "tools/base/ErrorText.h"
#include "tools/base/Random.h"
#include "tools/bus/Question.h"
#include "tools/mqtt/Client.h"

namespace {

const double PAUSE_GROWTH = 1.2;  // makes a pause a fifth of the outage before it
const double LONGEST_PAUSE = 10;  // seconds
const double CONNECT_TIME = 10;
const double LEAVE_TIME = 1.5;
const int MOST_READ = 50;  // from the client, before anything else is done

using Type = ClientPacket::Type;

}  // namespace

Broker::Broker(const MqttConfig& config, std::function<void(const std::string&)> tell, As as)
    : m_config(config),
      m_tell(std::move(tell)),
      m_as(as),
      m_name(config.prefix + "-" + config.site + "-" + std::to_string(NewRequestId())),
      m_is_local(config.is_local),
      m_connection(m_is_local ? 1 : 0),
      m_next(m_is_local ? TimePoint::max() : Now()),
      m_random(RandomBits()) {}

Broker::~Broker() {
    Close();
}

short Broker::Events() const {
    return static_cast<short>(POLLIN | (m_unsent.empty() ? 0 : POLLOUT));
}

void Broker::Tell(const std::string& text) {
    if (text != m_last_told) {
        m_last_told = text;
        m_tell(text);
    }
}

void Broker::Close() {
    if (m_client > 0) {
        kill(m_client, SIGKILL);
        waitpid(m_client, nullptr, 0);
        m_client = 0;
    }
    m_socket.Close();
    m_is_connected = false;
    m_batch.clear();
    m_unsent.clear();
    m_inbox.clear();
    m_acknowledged.clear();
}

void Broker::Drop(const std::string& reason) {
    Close();
    if (m_is_local) {
        ++m_connection;
        return;
    }
    Tell("no connection to the broker: " + reason);
    // Otherwise all bridges would return to a broker at the same moment.
    m_next = After(m_pause * std::uniform_real_distribution<double>(0.5, 1)(m_random));
    m_pause = std::min(m_pause * PAUSE_GROWTH, LONGEST_PAUSE);
}

void Broker::Connect() {
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
        return Drop(ErrorText(errno));
    }
    m_socket = Descriptor(sockets[0]);
    const Descriptor other(sockets[1]);
    m_client = fork();
    if (m_client == 0) {
        RunClient(m_config, m_name, m_as == As::Bridge, other.Get());
    }
    if (m_client < 0) {
        return Drop(ErrorText(errno));
    }
    ++m_connection;
    m_next = After(CONNECT_TIME);
}

void Broker::Serve(bool readable, bool writable) {
    if (!m_socket.IsOpen()) {
        if (!m_is_local && Now() >= m_next) {
            Connect();
        }
        return;
    }
    if (writable) {
        Flush();
    }
    for (int i = 0; readable && i < MOST_READ && TakeFromClient(); ++i) {
    }
    if (m_socket.IsOpen() && !m_is_connected && Now() >= m_next) {
        Drop("it does not answer");
    }
}

// False if there was nothing, or the connection has ended.
bool Broker::TakeFromClient() {
    static char data[LARGEST_CLIENT_PACKET];
    const ssize_t size = recv(m_socket.Get(), data, sizeof data, MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    if (size <= 0) {
        Drop(CrashText());
        return false;
    }
    std::string_view left(data, static_cast<size_t>(size));
    while (m_socket.IsOpen() && !left.empty()) {
        if (const std::optional<ClientPacket> packet = Decode(left)) {
            Take(*packet);
        } else {
            Drop("it has corrupted the MQTT client");
        }
    }
    return m_socket.IsOpen();
}

// What ended the client, which had no time to say it. One that has only closed its socket is
// killed; of one that has ended, the status stays.
std::string Broker::CrashText() {
    int status = 0;
    kill(m_client, SIGKILL);
    const bool has_ended = waitpid(m_client, &status, 0) == m_client;
    m_client = 0;
    return has_ended && WIFSIGNALED(status)
               ? std::string("it has crashed the MQTT client (") + strsignal(WTERMSIG(status)) + ")"
               : "the MQTT client has ended";
}

void Broker::Take(const ClientPacket& packet) {
    switch (packet.type) {
        case Type::Connected:
            m_is_connected = true;
            ++m_connections;
            m_next = TimePoint::max();
            return Tell("connected to the broker");
        case Type::Received:
            return TakeMessage(packet);
        case Type::Acknowledged:
            m_acknowledged.push_back(packet.number);
            return;
        case Type::Note:
            return Tell(std::string(packet.payload));
        default:
            return Drop(std::string(packet.payload));
    }
}

void Broker::TakeMessage(const ClientPacket& packet) {
    Message& message = m_inbox.emplace_back();
    message.topic = packet.topic;
    message.payload = packet.payload;
    message.retained = (packet.flags & ClientPacket::RETAINED) != 0;
    message.response_topic = packet.response_topic;
    message.correlation = packet.correlation;
    if ((packet.flags & ClientPacket::EXPIRES) != 0) {
        message.expiry = packet.number;
    }
}

void Broker::Send(const ClientPacket& packet) {
    if (!m_is_connected) {
        return;
    }
    if (m_batch.size() + SizeOf(packet) > LARGEST_CLIENT_PACKET) {
        Flush();
    }
    Encode(packet, m_batch);
}

// If the client has ended, that is noticed when its socket is read.
void Broker::Flush() {
    if (!m_batch.empty()) {
        m_unsent.push_back(std::exchange(m_batch, {}));
    }
    while (!m_unsent.empty()) {
        const std::string& data = m_unsent.front();
        const ssize_t sent =
            send(m_socket.Get(), data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        m_unsent.pop_front();
    }
}

uint32_t Broker::Publish(const Outgoing& message) {
    if (m_is_local) {
        if (m_subscribed.count(message.topic) > 0) {
            Message& back = m_inbox.emplace_back();
            back.topic = message.topic;
            back.payload = message.payload;
        }
        return ++m_number;
    }
    m_published += m_is_connected;
    const int flags = (message.retain ? ClientPacket::RETAINED : 0) |
                      (message.acknowledged ? ClientPacket::ACKNOWLEDGE : 0);
    Send({Type::Publish,
          static_cast<uint8_t>(flags),
          ++m_number,
          message.topic,
          message.payload,
          {},
          message.correlation});
    return m_number;
}

void Broker::Subscribe(const std::string& topic, int options) {
    if (m_is_local) {
        m_subscribed.insert(topic);
    }
    Send({Type::Subscribe, static_cast<uint8_t>(options), 0, topic});
}

void Broker::Unsubscribe(const std::string& topic) {
    m_subscribed.erase(topic);
    Send({Type::Unsubscribe, 0, 0, topic});
}

void Broker::Leave() {
    Send({Type::Leave});
    Flush();
    const TimePoint end = After(LEAVE_TIME);
    while (m_is_connected && Now() < end) {
        pollfd fd = {m_socket.Get(), Events(), 0};
        poll(&fd, 1, MillisecondsUntil(end));
        Flush();
        char data;
        m_is_connected = recv(fd.fd, &data, 1, MSG_DONTWAIT) != 0;
    }
    Close();
    m_next = TimePoint::max();
}
