#include "tools/bus/Answerers.h"

#include <algorithm>

#include "tools/bus/Interface.h"

namespace {

const std::chrono::seconds TOGETHER(1);
const std::chrono::seconds MEMORY(60);

}  // namespace

void Answerers::Take(const CMessage& message, TimePoint now) {
    if (KindOf(message) != Kind::Reply) {
        return;
    }
    const auto host = static_cast<uint32_t>(message.GetHost());
    uint32_t last = UINT32_MAX;
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *message.GetItem(i);
        const uint32_t address = item.m_nTag >> 8;
        if (IsPinItem(item) && address != last) {
            last = address;
            Note(address, host, now);
        }
    }
}

void Answerers::Note(uint32_t address, uint32_t host, TimePoint now) {
    if (m_answers.count(address) == 0 && m_answers.size() >= MAX_ADDRESSES) {
        return;
    }
    std::vector<Answer>& answers = m_answers[address];
    auto own = std::find_if(answers.begin(), answers.end(),
                            [host](const Answer& answer) { return answer.host == host; });
    if (own == answers.end()) {
        answers.erase(std::remove_if(answers.begin(), answers.end(),
                                     [now](const Answer& a) { return a.at + MEMORY < now; }),
                      answers.end());
        if (answers.size() >= MAX_HOSTS) {
            return;
        }
        own = answers.insert(answers.end(), {host, now});
    }
    own->at = now;
    for (Answer& other : answers) {
        if (other.host != host && other.at + TOGETHER >= now) {
            other.is_shared = true;
            own->is_shared = true;
        }
    }
}

std::set<uint32_t> Answerers::Sharing(uint32_t address, TimePoint now) const {
    std::set<uint32_t> hosts;
    const auto found = m_answers.find(address);
    if (found != m_answers.end()) {
        for (const Answer& answer : found->second) {
            if (answer.is_shared && answer.at + MEMORY >= now) {
                hosts.insert(answer.host);
            }
        }
    }
    return hosts.size() > 1 ? hosts : std::set<uint32_t>();
}

std::map<uint32_t, std::set<uint32_t>> Answerers::Shared(TimePoint now) const {
    std::map<uint32_t, std::set<uint32_t>> shared;
    for (const auto& address : m_answers) {
        const std::set<uint32_t> hosts = Sharing(address.first, now);
        if (!hosts.empty()) {
            shared.emplace(address.first, hosts);
        }
    }
    return shared;
}

std::string SharedText(uint32_t address, const std::set<uint32_t>& hosts, const Names& names) {
    std::string text;
    for (const uint32_t host : hosts) {
        text += (text.empty() ? "" : " and ") + HostText(host);
    }
    return names.AddressLabel(address) + " is answered by " + text +
           ": two devices have the same address";
}
