#include "tools/bus/Question.h"

#include <algorithm>

#include "tools/base/Random.h"

namespace {

const double ASK_AGAIN = 0.25;       // seconds
const double LINGER = 0.02;          // after the last answer
const size_t PINS_IN_A_FRAME = 230;  // 6 bytes each, beside 31 of headers and request

}  // namespace

uint32_t NewRequestId() {
    return std::max<uint32_t>(1, RandomBits());
}

void AskForPins(BusLink& link, const std::vector<uint32_t>& tags, uint32_t request_id) {
    for (size_t begin = 0; begin < tags.size(); begin += PINS_IN_A_FRAME) {
        CMessage message(16, 256);
        message.SetId(ID_READ);
        message.SetDword(TAG_REQUEST_ID, request_id);
        for (size_t i = begin; i < std::min(tags.size(), begin + PINS_IN_A_FRAME); ++i) {
            message.SetByte(tags[i], 0);
        }
        link.Send(message, link.Settings().send_port, false);
    }
}

Question::Question(BusLink& link, const std::vector<PinRef>& pins, std::optional<TimePoint> end)
    : m_link(link),
      m_pins(pins),
      m_id(NewRequestId()),
      m_ask(Now()),
      m_end(end.value_or(Later(m_ask, link.Settings().wait))) {
    for (const PinRef& pin : pins) {
        for (const uint32_t tag : pin.Tags()) {
            if (m_answers.emplace(tag, std::nullopt).second) {
                m_tags.push_back(tag);
            }
        }
    }
    m_open = m_answers.size();
    if (m_open == 0) {
        m_end = m_ask;
    }
}

void Question::AskWhenDue() {
    if (m_open == 0 || IsOver() || Now() < m_ask) {
        return;
    }
    m_ask = After(ASK_AGAIN);
    std::vector<uint32_t> open;
    for (const uint32_t tag : m_tags) {
        if (!AnswerOf(tag)) {
            open.push_back(tag);
        }
    }
    AskForPins(m_link, open, m_id);
}

TimePoint Question::NextTime() const {
    return m_open == 0 ? m_end : std::min(m_ask, m_end);
}

bool Question::IsOver() const {
    return Now() >= m_end;
}

bool Question::IsAnswer(const CMessage& message) const {
    const CMsg2::Node* refers = FindItem(message, TAG_REFERS_TO, CMsg2::ITEM_DWORD);
    return message.GetId() == ID_REPORT && refers != nullptr && refers->m_Value.m_nDword == m_id;
}

bool Question::Take(const CMessage& message) {
    if (!IsAnswer(message)) {
        return false;
    }
    m_answerers.Take(message, Now());
    const size_t before = m_open;
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *message.GetItem(i);
        const auto answer = m_answers.find(item.m_nTag);
        const PinValue value = PinValueOf(Kind::Reply, item);
        if (value.level && answer != m_answers.end() && !answer->second) {
            answer->second =
                Answer{*value.level, static_cast<uint32_t>(message.GetHost()), TimeOfDay()};
            --m_open;
        }
    }
    if (m_open == 0 && before > 0) {
        m_end = std::min(m_end, After(LINGER));
    }
    return m_open < before;
}

std::optional<Question::Answer> Question::AnswerOf(uint32_t tag) const {
    const auto answer = m_answers.find(tag);
    return answer == m_answers.end() ? std::nullopt : answer->second;
}

std::vector<PinFact> Question::Facts() const {
    std::vector<PinFact> facts;
    for (const uint32_t tag : m_tags) {
        const auto answer = AnswerOf(tag);
        facts.push_back(answer ? PinFact{tag, answer->level, answer->time, answer->host}
                               : PinFact{tag, std::nullopt, TimeOfDay(), 0});
    }
    return facts;
}

std::string Question::Missing(const Names& names) const {
    std::string text;
    for (const PinRef& pin : m_pins) {
        const std::vector<uint32_t> tags = pin.Tags();
        std::vector<std::string> missing;
        for (const uint32_t tag : tags) {
            if (!AnswerOf(tag)) {
                missing.push_back(names.Label(tag));
            }
        }
        if (!pin.circuit && missing.size() == tags.size()) {
            missing = {names.AddressLabel(pin.address)};
        }
        for (const std::string& label : missing) {
            text += (text.empty() ? "" : ", ") + label;
        }
    }
    return text;
}
