#include "tools/mqtt/Broker.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tools/base/ErrorText.h"
#include "tools/bus/Question.h"
#include "tools/mqtt/Topics.h"

namespace {

const double PAUSE_GROWTH = 1.2;  // makes a pause a fifth of the outage before it
const double LONGEST_PAUSE = 10;
const double TEND_EVERY = 1;
const double CONNECT_TIME = 10;
const int KEEP_ALIVE = 5;  // seconds; a dead bridge is noticed after one and a half of them
const int REFUSED = 128;   // reasons from here on are failures
const int PACKETS = 50;    // taken at a time
const char* const SYSTEM_CAS = "/etc/ssl/certs";

}  // namespace

// Called by the library. They must not throw.
struct Broker::Callbacks {
    static void Connected(mosquitto*, void* object, int reason, int, const mosquitto_property*) {
        auto& self = *static_cast<Broker*>(object);
        self.m_refusal = reason;
        self.m_is_connected = reason == 0;
    }

    static void Disconnected(mosquitto*, void* object, int reason, const mosquitto_property*) {
        auto& self = *static_cast<Broker*>(object);
        if (reason >= REFUSED) {
            self.m_refusal = reason;
        }
    }

    static void Received(mosquitto*, void* object, const mosquitto_message* message,
                         const mosquitto_property* properties) {
        Message taken;
        taken.topic = message->topic;
        taken.payload.assign(static_cast<const char*>(message->payload),
                             message->payload == nullptr
                                 ? 0
                                 : static_cast<size_t>(std::max(message->payloadlen, 0)));
        taken.retained = message->retain;
        char* text = nullptr;
        if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &text, false) !=
            nullptr) {
            taken.response_topic = text;
            free(text);
        }
        void* data = nullptr;
        uint16_t size = 0;
        if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size,
                                           false) != nullptr) {
            taken.correlation.assign(static_cast<const char*>(data), size);
            free(data);
        }
        uint32_t seconds = 0;
        if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds,
                                          false) != nullptr) {
            taken.expiry = seconds;
        }
        static_cast<Broker*>(object)->m_inbox.push_back(std::move(taken));
    }

    static void Acknowledged(mosquitto*, void* object, int number, int reason,
                             const mosquitto_property*) {
        auto& self = *static_cast<Broker*>(object);
        self.m_acknowledged.push_back(number);
        if (reason >= REFUSED) {
            self.Tell(std::string("the broker refuses what is published: ") +
                      mosquitto_reason_string(reason));
        }
    }

    static void Subscribed(mosquitto*, void* object, int number, int count, const int* granted,
                           const mosquitto_property*) {
        auto& self = *static_cast<Broker*>(object);
        for (auto& [pending, topic] : self.m_subscriptions) {
            if (pending == number && count > 0 && granted[0] >= REFUSED) {
                self.Tell("the broker refuses the subscription of " + topic);
            }
        }
    }

    static void Logged(mosquitto*, void* object, int level, const char* text) {
        if (level == MOSQ_LOG_ERR) {
            static_cast<Broker*>(object)->m_last_error = text;
        }
    }

    static int NoPassphrase(char*, int, int, void*) { return 0; }
};

Broker::Broker(const MqttConfig& config, std::function<void(const std::string&)> tell)
    : m_config(config),
      m_tell(std::move(tell)),
      m_name(config.prefix + "-" + config.site + "-" + std::to_string(NewRequestId())),
      m_pause(FIRST_PAUSE),
      m_next(Now()),
      m_random(std::random_device()()) {
    mosquitto_lib_init();
}

Broker::~Broker() {
    Close();
    mosquitto_lib_cleanup();
}

int Broker::Socket() const {
    return m_client == nullptr ? -1 : mosquitto_socket(m_client);
}

short Broker::Events() const {
    return static_cast<short>(
        POLLIN | (m_client != nullptr && mosquitto_want_write(m_client) ? POLLOUT : 0));
}

TimePoint Broker::NextTime() const {
    return m_next;
}

bool Broker::CanSend() const {
    return m_is_connected && !mosquitto_want_write(m_client);
}

void Broker::Tell(const std::string& text) {
    if (text != m_last_told) {
        m_last_told = text;
        m_tell(text);
    }
}

std::string Broker::Text(int error) const {
    if (m_refusal != 0) {
        return mosquitto_reason_string(m_refusal);
    }
    if (error == MOSQ_ERR_ERRNO) {
        return ErrorText(errno);
    }
    if (error == MOSQ_ERR_KEEPALIVE) {  // the library has no text for it
        return "it does not answer";
    }
    const std::string text = mosquitto_strerror(error);
    return m_last_error.empty() ? text : text + " (" + m_last_error + ")";
}

void Broker::Close() {
    if (m_client != nullptr) {
        mosquitto_destroy(m_client);
        m_client = nullptr;
    }
    m_is_connected = false;
    m_subscriptions.clear();
    m_inbox.clear();
    m_acknowledged.clear();
}

void Broker::Drop(const std::string& reason) {
    Close();
    Tell("no connection to the broker: " + reason);
    // Otherwise all bridges would return to a broker at the same moment.
    m_next = After(m_pause * std::uniform_real_distribution<double>(0.5, 1)(m_random));
    m_pause = std::min(m_pause * PAUSE_GROWTH, LONGEST_PAUSE);
}

void Broker::Leave() {
    if (m_is_connected) {
        mosquitto_disconnect(m_client);
        mosquitto_loop_write(m_client, PACKETS);
    }
    Close();
    m_next = TimePoint::max();
}

void Broker::Prepare() {
    mosquitto_int_option(m_client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m_client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(m_client, Callbacks::Connected);
    mosquitto_disconnect_v5_callback_set(m_client, Callbacks::Disconnected);
    mosquitto_message_v5_callback_set(m_client, Callbacks::Received);
    mosquitto_publish_v5_callback_set(m_client, Callbacks::Acknowledged);
    mosquitto_subscribe_v5_callback_set(m_client, Callbacks::Subscribed);
    mosquitto_log_callback_set(m_client, Callbacks::Logged);
    const std::string status = Topics(m_config).Status();
    mosquitto_will_set_v5(m_client, status.c_str(), static_cast<int>(strlen(OFFLINE)), OFFLINE, 1,
                          true, nullptr);
    if (!m_config.user.empty()) {
        mosquitto_username_pw_set(m_client, m_config.user.c_str(), m_config.password.c_str());
    }
}

void Broker::Connect() {
    m_client = mosquitto_new(m_name.c_str(), true, this);
    if (m_client == nullptr) {
        return Drop(ErrorText(errno));
    }
    m_refusal = 0;
    m_last_error.clear();
    Prepare();
    const auto file = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
    int error = MOSQ_ERR_SUCCESS;
    if (m_config.tls) {
        error = mosquitto_tls_set(
            m_client, file(m_config.ca), m_config.ca.empty() ? SYSTEM_CAS : nullptr,
            file(m_config.certificate), file(m_config.key), Callbacks::NoPassphrase);
    }
    if (error == MOSQ_ERR_SUCCESS) {
        error = mosquitto_connect_bind_async(m_client, m_config.host.c_str(), m_config.port,
                                             KEEP_ALIVE, nullptr);
    }
    if (error != MOSQ_ERR_SUCCESS) {
        return Drop(Text(error));
    }
    ++m_connection;
    m_next = After(CONNECT_TIME);
}

void Broker::Serve(bool readable, bool writable) {
    if (m_client == nullptr) {
        if (Now() >= m_next) {
            Connect();
        }
        return;
    }
    const bool was_connected = m_is_connected;
    int error = MOSQ_ERR_SUCCESS;
    if (writable) {
        error = mosquitto_loop_write(m_client, PACKETS);
    }
    if (error == MOSQ_ERR_SUCCESS && readable) {
        error = mosquitto_loop_read(m_client, PACKETS);
    }
    const bool is_due = Now() >= m_next;
    if (error == MOSQ_ERR_SUCCESS && is_due) {
        error = mosquitto_loop_misc(m_client);
    }
    if (error != MOSQ_ERR_SUCCESS || m_refusal != 0) {
        return Drop(Text(error));
    }
    // cppcheck-suppress knownConditionTrueFalse; the library's calls set it
    if (is_due && !was_connected && !m_is_connected) {
        return Drop("it does not answer");
    }
    if (m_is_connected && (is_due || !was_connected)) {
        m_next = After(TEND_EVERY);
    }
    if (m_is_connected && !was_connected) {
        Tell("connected to the broker");
    }
}

int Broker::Publish(const Outgoing& message) {
    mosquitto_property* properties = nullptr;
    if (!message.correlation.empty()) {
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA,
                                      message.correlation.data(),
                                      static_cast<uint16_t>(message.correlation.size()));
    }
    int number = 0;
    const int error = mosquitto_publish_v5(
        m_client, &number, message.topic.c_str(), static_cast<int>(message.payload.size()),
        message.payload.data(), message.acknowledged ? 1 : 0, message.retain, properties);
    mosquitto_property_free_all(&properties);
    return error == MOSQ_ERR_SUCCESS ? number : 0;
}

void Broker::Subscribe(const std::string& topic, int options) {
    int number = 0;
    mosquitto_subscribe_v5(m_client, &number, topic.c_str(), 1, options, nullptr);
    m_subscriptions.emplace_back(number, topic);
}

void Broker::Unsubscribe(const std::string& topic) {
    mosquitto_unsubscribe(m_client, nullptr, topic.c_str());
}
