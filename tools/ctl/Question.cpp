#include "tools/ctl/Question.h"

#include <algorithm>
#include <random>

namespace {

const double ASK_AGAIN = 0.25;  // seconds

// Not 0, which stands for no identifier.
uint32_t NewIdentifier() {
    std::random_device random;
    return std::uniform_int_distribution<uint32_t>(1)(random);
}

}  // namespace

Question::Question(BusLink& link, const std::vector<PinRef>& pins)
    : m_link(link), m_pins(pins), m_id(NewIdentifier()), m_message(16, 16) {
    m_message.SetId(ID_READ);
    m_message.SetDword(TAG_REQUEST_ID, m_id);
    for (const PinRef& pin : pins) {
        for (const uint32_t tag : pin.Tags()) {
            m_values.emplace(tag, std::nullopt);
            m_message.SetByte(tag, 0);
        }
    }
    m_open = m_values.size();
    m_ask = After(0);
    m_end = After(link.Settings().wait);
}

void Question::AskWhenDue() {
    if (!IsOver() && After(0) >= m_ask) {
        m_link.Send(m_message, m_link.Settings().send_port, false);
        m_ask = After(ASK_AGAIN);
    }
}

TimePoint Question::NextTime() const {
    return std::min(m_ask, m_end);
}

bool Question::IsOver() const {
    return m_open == 0 || After(0) >= m_end;
}

bool Question::IsAnswer(const CMessage& message) const {
    const CMsg2::Node* refers = FindItem(message, TAG_REFERS_TO, CMsg2::ITEM_DWORD);
    return message.GetId() == ID_REPORT && refers != nullptr && refers->m_Value.m_nDword == m_id;
}

bool Question::Take(const CMessage& message) {
    if (!IsAnswer(message)) {
        return false;
    }
    const size_t before = m_open;
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *message.GetItem(i);
        const auto value = m_values.find(item.m_nTag);
        if (item.m_nType == CMsg2::ITEM_BYTE && value != m_values.end() && !value->second) {
            value->second = static_cast<uint8_t>(item.m_Value.m_nDword);
            --m_open;
        }
    }
    return m_open < before;
}

std::optional<uint8_t> Question::ValueOf(uint32_t tag) const {
    const auto value = m_values.find(tag);
    return value == m_values.end() ? std::nullopt : value->second;
}

std::string Question::Missing() const {
    std::vector<std::string> names;
    for (const PinRef& pin : m_pins) {
        const std::vector<uint32_t> tags = pin.Tags();
        std::vector<std::string> missing;
        for (const uint32_t tag : tags) {
            if (!ValueOf(tag)) {
                missing.push_back(PinText(tag));
            }
        }
        if (!pin.circuit && missing.size() == tags.size()) {
            missing = {AddressText(pin.address)};
        }
        names.insert(names.end(), missing.begin(), missing.end());
    }
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}
