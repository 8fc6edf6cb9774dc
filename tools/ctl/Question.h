// A question about pins, asked until it is answered.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/ctl/BusLink.h"
#include "tools/ctl/PinName.h"

// Asks the group for pins with a message that has an identifier of its own. Question or answer may
// get lost, so it is asked again a few times a second, until each pin was answered or the time that
// the link waits for answers is over. Different devices may answer for different pins; the first
// answer for a pin counts.
class Question {
public:
    Question(BusLink& link, const std::vector<PinRef>& pins);

    // Asks when it is time to.
    void AskWhenDue();

    // When AskWhenDue() has something to do next or the question is over.
    TimePoint NextTime() const;

    // Answered or out of time.
    bool IsOver() const;

    // Whether the message refers to this question.
    bool IsAnswer(const CMessage& message) const;

    // Takes an answer. False when it is none, or says nothing new.
    bool Take(const CMessage& message);

    // The value of a pin; none when it wasn't answered.
    std::optional<uint8_t> ValueOf(uint32_t tag) const;

    // The names of what was not answered, "1:2, 7:in1"; empty when everything was.
    std::string Missing() const;

private:
    BusLink& m_link;
    const std::vector<PinRef> m_pins;
    const uint32_t m_id;
    CMessage m_message;
    std::map<uint32_t, std::optional<uint8_t>> m_values;  // by tag
    size_t m_open;                                        // pins that aren't answered
    TimePoint m_ask;
    TimePoint m_end;
};
