// Reads pins from the bus.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/bus/Answerers.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinJson.h"
#include "tools/bus/PinName.h"

// A number for the requests of one question. Never 0, which means none.
uint32_t NewRequestId();

// Sends reads for the pins, in messages that fit an Ethernet frame. Throws BusError.
void AskForPins(BusLink& link, const std::vector<uint32_t>& tags, uint32_t request_id);

// A read that is repeated until it is answered. Reads and replies may get lost, so it is repeated a
// few times a second until every pin has been answered or the link's time for answers is over.
// Different devices may answer for different pins; the first answer for a pin counts. It listens a
// moment longer, to see a second device that answers for the same address.
class Question {
public:
    // Ends at that time; without one, after the link's waiting time.
    Question(BusLink& link, const std::vector<PinRef>& pins,
             std::optional<TimePoint> end = std::nullopt);

    // Sends when it is due. Throws BusError.
    void AskWhenDue();

    // When AskWhenDue() has to be called next, or the question ends.
    TimePoint NextTime() const;

    // All answered and a moment passed, or out of time.
    bool IsOver() const;

    // Whether the message refers to this question.
    bool IsAnswer(const CMessage& message) const;

    // Whether it reads the pin.
    bool IsAsked(uint32_t tag) const { return m_answers.count(tag) > 0; }

    // Processes an answer. False if it is none, or contains nothing new.
    bool Take(const CMessage& message);

    // Who told a pin's level, and when; none if it wasn't answered.
    struct Answer {
        Level level;
        uint32_t host;  // host byte order
        double time;    // seconds since 1970
    };
    std::optional<Answer> AnswerOf(uint32_t tag) const;

    // The pins in the order given, each once. Those without an answer have no level.
    std::vector<PinFact> Facts() const;

    // Who answered, among them two hosts for one address.
    const Answerers& GetAnswerers() const { return m_answerers; }

    // The unanswered pins, "1:2 (studio1), 7:in1"; empty if everything was answered.
    std::string Missing(const Names& names) const;

private:
    BusLink& m_link;
    const std::vector<PinRef> m_pins;
    const uint32_t m_id;
    std::vector<uint32_t> m_tags;                         // in the order of the pins
    std::map<uint32_t, std::optional<Answer>> m_answers;  // by tag
    Answerers m_answerers;
    size_t m_open;  // unanswered pins
    TimePoint m_ask;
    TimePoint m_end;
};
