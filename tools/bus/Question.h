// Questions about pins.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/bus/BusLink.h"
#include "tools/bus/PinName.h"

// A number for the requests of one question. Not 0, which stands for none.
uint32_t NewRequestId();

// Asks for the pins, in messages that each fit a frame of Ethernet. Throws BusError.
void AskForPins(BusLink& link, const std::vector<uint32_t>& tags, uint32_t request_id);

// A question that is asked until it is answered. Question or answer may get lost, so it is asked
// again a few times a second, until each pin was answered or the time that the link waits for
// answers is over. Different devices may answer for different pins; the first answer for a pin
// counts.
class Question {
public:
    // Until then; without a time for as long as the link's settings wait.
    Question(BusLink& link, const std::vector<PinRef>& pins,
             std::optional<TimePoint> end = std::nullopt);

    // Asks when it is time to. Throws BusError.
    void AskWhenDue();

    // When AskWhenDue() has something to do next or the question is over.
    TimePoint NextTime() const;

    // Answered or out of time.
    bool IsOver() const;

    // Whether the message refers to this question.
    bool IsAnswer(const CMessage& message) const;

    // Takes an answer. False when it is none, or says nothing new.
    bool Take(const CMessage& message);

    // Who told a pin what, and when; none when it wasn't answered.
    struct Answer {
        Level level;
        uint32_t host;  // host byte order
        double time;    // seconds since 1970
    };
    std::optional<Answer> AnswerOf(uint32_t tag) const;

    // The names of what was not answered, "1:2, 7:in1"; empty when everything was.
    std::string Missing() const;

private:
    BusLink& m_link;
    const std::vector<PinRef> m_pins;
    const uint32_t m_id;
    std::vector<uint32_t> m_tags;                         // in the order of the pins
    std::map<uint32_t, std::optional<Answer>> m_answers;  // by tag
    size_t m_open;                                        // pins that aren't answered
    TimePoint m_ask;
    TimePoint m_end;
};
