// Sets received from the broker, and their answers.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "tools/bus/PinFollower.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Topics.h"

// Carries sets out at once or not at all, and checks whether the device obeyed. None is queued.
class Sets {
public:
    Sets(const MqttConfig& config, PinFollower& pins, std::function<void(const std::string&)> tell);

    // Processes a message to the topics of sets. It is at most age seconds old. A reason says why
    // none can be carried out now; empty if they can.
    void Take(const Broker::Message& message, double age, const std::string& hindrance);

    // Processes a device's answer.
    void TakeReply(const Traffic& traffic);

    // How many had each result, "done", "sent" or "refused".
    const std::map<std::string, uint64_t>& Results() const { return m_results; }

    // Reads pins, and gives up waiting for devices.
    void Tend();
    TimePoint NextTime() const;

    // Those to be published, oldest first.
    const std::deque<Broker::Outgoing>& Answers() const { return m_answers; }

    // Publishes the next one. False if there is none, or the broker has to acknowledge others
    // first.
    bool PublishAnswer(Broker& broker);

    // The broker has the answer with that number; what it has not acknowledged is published again.
    void Acknowledged(uint32_t number) { m_unacknowledged.erase(number); }
    void ConnectionEnded();

private:
    struct Pending {
        Broker::Message message;
        std::string pin;
        uint32_t tag;
        Level level;
        uint32_t id;
        TimePoint ask;
        TimePoint end;
        std::optional<Level> answered;
    };

    bool IsReserved(const std::string& topic) const;
    uint32_t Check(const Broker::Message& message, const std::string& pin, double age,
                   const std::string& hindrance) const;
    void Answer(const Broker::Message& message, const std::string& result, const std::string& pin,
                const std::string& reason);

    const MqttConfig& m_config;
    const Topics m_topics;
    PinFollower& m_pins;
    const std::function<void(const std::string&)> m_tell;
    std::map<std::string, uint64_t> m_results{{"done", 0}, {"sent", 0}, {"refused", 0}};
    std::list<Pending> m_pending;
    std::deque<Broker::Outgoing> m_answers;
    std::map<uint32_t, Broker::Outgoing> m_unacknowledged;  // by number
};
