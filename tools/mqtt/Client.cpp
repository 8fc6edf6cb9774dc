#include "tools/mqtt/Client.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>

#include "tools/base/ErrorText.h"
#include "tools/base/Time.h"
#include "tools/mqtt/ClientPacket.h"
#include "tools/mqtt/Topics.h"

namespace {

const int SOCKET = 3;              // where the child has the socket to the bridge
const rlim_t MEMORY = 16UL << 20;  // bytes, beyond what the process has when it begins
const int KEEP_ALIVE = 5;          // seconds; a dead client is noticed after one and a half of them
const double LONGEST_SILENCE = 7.5;  // seconds, of the bridge, which sends heartbeats
const double TEND_EVERY = 1;         // seconds
const double LEAVE_TIME = 1;         // seconds
const int REFUSED = 128;             // reasons from here on are failures
const int MOST_READ = 50;            // from the bridge, before the broker is served again
const int UNUSED = 1;                // the library's limit of packets, which it ignores
const char* const SYSTEM_CAS = "/etc/ssl/certs";

using Type = ClientPacket::Type;

class Client {
public:
    Client(const MqttConfig& config, const std::string& name, bool has_will)
        : m_config(config), m_name(name), m_has_will(has_will) {}

    void Run();

private:
    struct Callbacks;

    bool Connect();
    int Prepare();
    void Loop();
    int ServeBroker(short events);
    void ServeBridge();
    void Obey(const ClientPacket& packet);
    void Publish(const std::string& topic, const ClientPacket& packet);
    void Leave();
    void Send(const ClientPacket& packet);
    void Note(const std::string& text) { Send({Type::Note, 0, 0, {}, text}); }
    void End(const std::string& reason);
    std::string Text(int error) const;

    const MqttConfig& m_config;
    const std::string m_name;
    const bool m_has_will;
    mosquitto* m_client = nullptr;
    bool m_ends = false;
    int m_refusal = 0;                           // the broker's reason
    std::string m_last_error;                    // as logged by the library, or about a file
    TimePoint m_heard = Now();                   // from the bridge
    std::string m_data;                          // what is sent to it
    std::map<int, std::string> m_subscriptions;  // not answered yet
    std::map<int, uint32_t> m_numbers;           // of the bridge, for those of the library
};

// Called by the library.
struct Client::Callbacks {
    static void Connected(mosquitto*, void* object, int reason, int, const mosquitto_property*) {
        auto& self = *static_cast<Client*>(object);
        self.m_refusal = reason;
        if (reason == 0) {
            self.Send({Type::Connected});
        }
    }

    static void Disconnected(mosquitto*, void* object, int reason, const mosquitto_property*) {
        if (reason >= REFUSED) {
            static_cast<Client*>(object)->m_refusal = reason;
        }
    }

    static void Received(mosquitto*, void* object, const mosquitto_message* message,
                         const mosquitto_property* properties) {
        ClientPacket taken{Type::Received};
        taken.topic = message->topic;
        taken.payload = {static_cast<const char*>(message->payload),
                         static_cast<size_t>(message->payloadlen)};
        taken.flags = message->retain ? ClientPacket::RETAINED : 0;
        char* text = nullptr;
        if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &text, false) !=
            nullptr) {
            taken.response_topic = text;
        }
        void* data = nullptr;
        uint16_t size = 0;
        if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size,
                                           false) != nullptr) {
            taken.correlation = {static_cast<const char*>(data), size};
        }
        if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                          &taken.number, false) != nullptr) {
            taken.flags |= ClientPacket::EXPIRES;
        }
        static_cast<Client*>(object)->Send(taken);
        free(text);
        free(data);
    }

    static void Acknowledged(mosquitto*, void* object, int number, int reason,
                             const mosquitto_property*) {
        auto& self = *static_cast<Client*>(object);
        const auto known = self.m_numbers.find(number);
        if (known != self.m_numbers.end()) {
            self.Send({Type::Acknowledged, 0, known->second});
            self.m_numbers.erase(known);
        }
        if (reason >= REFUSED) {
            self.Note(std::string("the broker refuses what is published: ") +
                      mosquitto_reason_string(reason));
        }
    }

    static void Subscribed(mosquitto*, void* object, int number, int count, const int* granted,
                           const mosquitto_property*) {
        auto& self = *static_cast<Client*>(object);
        const auto pending = self.m_subscriptions.find(number);
        if (pending != self.m_subscriptions.end() && count > 0 && granted[0] >= REFUSED) {
            self.Note("the broker refuses the subscription of " + pending->second);
        }
        self.m_subscriptions.erase(number);
    }

    static void Logged(mosquitto*, void* object, int level, const char* text) {
        if (level == MOSQ_LOG_ERR) {
            static_cast<Client*>(object)->m_last_error = text;
        }
    }

    static int NoPassphrase(char*, int, int, void*) { return 0; }
};

void Client::Run() {
    mosquitto_lib_init();
    if (Connect()) {
        Loop();
    }
}

bool Client::Connect() {
    m_client = mosquitto_new(m_name.c_str(), true, this);
    if (m_client == nullptr) {
        End(ErrorText(errno));
        return false;
    }
    int error = Prepare();
    mosquitto_property* properties = nullptr;
    mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, LARGEST_MQTT_PACKET);
    if (error == MOSQ_ERR_SUCCESS) {
        errno = 0;
        error = mosquitto_connect_bind_v5(m_client, m_config.host.c_str(), m_config.port,
                                          KEEP_ALIVE, nullptr, properties);
    }
    if (error != MOSQ_ERR_SUCCESS) {
        End(Text(error));
    }
    return error == MOSQ_ERR_SUCCESS;
}

int Client::Prepare() {
    mosquitto_int_option(m_client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m_client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(m_client, Callbacks::Connected);
    mosquitto_disconnect_v5_callback_set(m_client, Callbacks::Disconnected);
    mosquitto_message_v5_callback_set(m_client, Callbacks::Received);
    mosquitto_publish_v5_callback_set(m_client, Callbacks::Acknowledged);
    mosquitto_subscribe_v5_callback_set(m_client, Callbacks::Subscribed);
    mosquitto_log_callback_set(m_client, Callbacks::Logged);
    if (m_has_will) {
        const std::string status = Topics(m_config).Status();
        mosquitto_will_set_v5(m_client, status.c_str(), static_cast<int>(strlen(OFFLINE)), OFFLINE,
                              1, true, nullptr);
    }
    if (!m_config.user.empty()) {
        mosquitto_username_pw_set(m_client, m_config.user.c_str(), m_config.password.c_str());
    }
    if (!m_config.tls) {
        return MOSQ_ERR_SUCCESS;
    }
    for (const std::string& path : {m_config.ca, m_config.certificate, m_config.key}) {
        if (!path.empty() && access(path.c_str(), R_OK) != 0) {
            m_last_error = "can't read " + path;
        }
    }
    const auto file = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
    return mosquitto_tls_set(m_client, file(m_config.ca),
                             m_config.ca.empty() ? SYSTEM_CAS : nullptr, file(m_config.certificate),
                             file(m_config.key), Callbacks::NoPassphrase);
}

void Client::Loop() {
    TimePoint tend = Now();
    while (!m_ends) {
        // What waits for the broker stays with the bridge: then its socket is left alone.
        const bool wants_write = mosquitto_want_write(m_client);
        pollfd fds[] = {{mosquitto_socket(m_client),
                         static_cast<short>(POLLIN | (wants_write ? POLLOUT : 0)), 0},
                        {wants_write ? -1 : SOCKET, POLLIN, 0}};
        poll(fds, 2, MillisecondsUntil(tend));
        errno = 0;
        int error = ServeBroker(fds[0].revents);
        if (error == MOSQ_ERR_SUCCESS && Now() >= tend) {
            error = mosquitto_loop_misc(m_client);
            tend = After(TEND_EVERY);
        }
        if (error != MOSQ_ERR_SUCCESS || m_refusal != 0) {
            return End(Text(error));
        }
        if (fds[1].revents != 0) {
            ServeBridge();
        }
        m_ends = m_ends || m_heard < After(-LONGEST_SILENCE);
    }
}

int Client::ServeBroker(short events) {
    int error = MOSQ_ERR_SUCCESS;
    if ((events & POLLOUT) != 0) {
        error = mosquitto_loop_write(m_client, UNUSED);
    }
    if (error == MOSQ_ERR_SUCCESS && (events & ~POLLOUT) != 0) {
        error = mosquitto_loop_read(m_client, UNUSED);
    }
    return error;
}

void Client::ServeBridge() {
    static char data[LARGEST_CLIENT_PACKET];
    for (int i = 0; i < MOST_READ && !m_ends && !mosquitto_want_write(m_client); ++i) {
        const ssize_t size = recv(SOCKET, data, sizeof data, MSG_DONTWAIT);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        m_heard = Now();
        m_ends = size <= 0;  // the bridge has ended
        std::string_view left(data, size > 0 ? static_cast<size_t>(size) : 0);
        while (!m_ends && !left.empty()) {
            if (const std::optional<ClientPacket> packet = Decode(left)) {
                Obey(*packet);
            } else {
                m_ends = true;
            }
        }
    }
}

void Client::Obey(const ClientPacket& packet) {
    const std::string topic(packet.topic);
    int number = 0;
    switch (packet.type) {
        case Type::Publish:
            return Publish(topic, packet);
        case Type::Subscribe:
            mosquitto_subscribe_v5(m_client, &number, topic.c_str(), 1, packet.flags, nullptr);
            m_subscriptions[number] = topic;
            return;
        case Type::Unsubscribe:
            mosquitto_unsubscribe(m_client, nullptr, topic.c_str());
            return;
        default:
            return Leave();
    }
}

void Client::Publish(const std::string& topic, const ClientPacket& packet) {
    mosquitto_property* properties = nullptr;
    if (!packet.correlation.empty()) {
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA,
                                      packet.correlation.data(),
                                      static_cast<uint16_t>(packet.correlation.size()));
    }
    const bool acknowledged = (packet.flags & ClientPacket::ACKNOWLEDGE) != 0;
    int number = 0;
    const int error = mosquitto_publish_v5(
        m_client, &number, topic.c_str(), static_cast<int>(packet.payload.size()),
        packet.payload.data(), acknowledged ? 1 : 0, (packet.flags & ClientPacket::RETAINED) != 0,
        properties);
    mosquitto_property_free_all(&properties);
    if (!acknowledged) {
        return;
    }
    if (error == MOSQ_ERR_SUCCESS) {
        m_numbers[number] = packet.number;
    } else {  // a topic that the library refuses, with wildcards
        Send({Type::Acknowledged, 0, packet.number});
    }
}

// Says goodbye, so that the broker does not publish the will. Before that, waits until it has what
// was published: the library closes the socket at once, and what is on its way would be lost.
void Client::Leave() {
    m_ends = true;
    const TimePoint end = After(LEAVE_TIME);
    for (int error = MOSQ_ERR_SUCCESS;
         error == MOSQ_ERR_SUCCESS && !m_numbers.empty() && Now() < end;) {
        const int events = POLLIN | (mosquitto_want_write(m_client) ? POLLOUT : 0);
        pollfd fd = {mosquitto_socket(m_client), static_cast<short>(events), 0};
        poll(&fd, 1, MillisecondsUntil(end));
        error = ServeBroker(fd.revents);
    }
    mosquitto_disconnect(m_client);
    while (mosquitto_want_write(m_client) && Now() < end) {
        pollfd fd = {mosquitto_socket(m_client), POLLOUT, 0};
        poll(&fd, 1, MillisecondsUntil(end));
        if (mosquitto_loop_write(m_client, UNUSED) != MOSQ_ERR_SUCCESS) {
            return;
        }
    }
}

// Waits while the bridge takes nothing: then nothing is read from the broker either.
void Client::Send(const ClientPacket& packet) {
    if (SizeOf(packet) > LARGEST_CLIENT_PACKET) {
        return End("a packet is larger than " + std::to_string(LARGEST_MQTT_PACKET) + " bytes");
    }
    m_data.clear();
    Encode(packet, m_data);
    while (send(SOCKET, m_data.data(), m_data.size(), MSG_NOSIGNAL) < 0) {
        if (errno != EINTR) {
            m_ends = true;
            return;
        }
    }
}

void Client::End(const std::string& reason) {
    if (!m_ends) {
        Send({Type::Ended, 0, 0, {}, reason});
    }
    m_ends = true;
}

std::string Client::Text(int error) const {
    if (m_refusal != 0) {
        return mosquitto_reason_string(m_refusal);
    }
    if (error == MOSQ_ERR_ERRNO && errno == 0) {
        return "it closed the connection";
    }
    if (error == MOSQ_ERR_KEEPALIVE) {  // the library has no text for it
        return "it does not answer";
    }
    if (error == MOSQ_ERR_INVAL && !m_last_error.empty()) {  // about a file
        return m_last_error;
    }
    const std::string text = error == MOSQ_ERR_ERRNO ? ErrorText(errno) : mosquitto_strerror(error);
    return m_last_error.empty() ? text : text + " (" + m_last_error + ")";
}

// No core for what a broker can cause at will, and memory for what it may send.
void LimitResources() {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    unsigned long pages = 0;
    if (FILE* const file = fopen("/proc/self/statm", "r")) {
        if (fscanf(file, "%*u %*u %*u %*u %*u %lu", &pages) != 1) {
            pages = 0;
        }
        fclose(file);
    }
    const rlim_t most = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + MEMORY;
    const rlimit memory = {most, most};
    if (pages != 0) {
        setrlimit(RLIMIT_DATA, &memory);
    }
}

}  // namespace

void RunClient(const MqttConfig& config, const std::string& name, bool has_will, int socket) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (dup2(socket, SOCKET) < 0) {
        _exit(1);
    }
    closefrom(SOCKET + 1);
    LimitResources();
    Client(config, name, has_will).Run();
    _exit(0);
}
