#include "tools/doctor/AskBus.h"

#include <arpa/inet.h>

#include <algorithm>

#include "tools/bus/Question.h"

namespace {

bool Differs(const std::string& state, const Question& question, uint32_t address) {
    for (size_t pin = 0; pin < state.size(); ++pin) {
        const uint32_t circuit = FIRST_INPUT_CIRCUIT - static_cast<uint32_t>(pin);
        const auto answer = question.AnswerOf(address << 8 | circuit);
        const bool is_low = state[pin] == 'L' || state[pin] == 'l';
        if (answer && (answer->level == Level::Low) != is_low) {
            return true;
        }
    }
    return false;
}

// Channels whose input the daemon reports differently. If several share an address, a reply
// contains only the last one, so those are omitted, and so are addresses of other devices.
std::vector<int> StaleInputs(const ChannelTable& table, const Question& question,
                             const BusAnswer& answer) {
    std::vector<int> stale;
    const std::vector<int> channels = table.Find(KIND_BUS);
    for (const int number : channels) {
        const uint32_t address = table.Channel(number).config.ach;
        const auto has_address = [&table, address](int other) {
            return table.Channel(other).config.ach == address;
        };
        if (std::count_if(channels.begin(), channels.end(), has_address) == 1 &&
            answer.others.count(address) == 0 &&
            Differs(table.Channel(number).input, question, address)) {
            stale.push_back(number);
        }
    }
    return stale;
}

std::vector<PinRef> PinsOf(const ChannelTable& table) {
    std::vector<PinRef> pins;
    for (const int number : table.Find(KIND_BUS)) {
        pins.push_back({table.Channel(number).config.ach, std::nullopt});
    }
    return pins;
}

void Ask(BusLink& link, Question& question, const Facts& facts, BusAnswer& answer) {
    Traffic traffic;
    while (!question.IsOver()) {
        question.AskWhenDue();
        if (link.Wait(traffic, question.NextTime()) == BusLink::Event::Heard &&
            question.IsAnswer(traffic.message)) {
            const uint32_t host = htonl(static_cast<uint32_t>(traffic.message.GetHost()));
            answer.has_answered = answer.has_answered || !facts.DeviceOf(host).empty();
            question.Take(traffic.message);
        }
    }
}

// Hosts that answer for our addresses, beside this device or in its place.
void FindOthers(const Question& question, const Facts& facts, BusAnswer& answer) {
    std::map<uint32_t, std::set<uint32_t>> hosts = question.GetAnswerers().Shared(Now());
    for (const PinRef& pin : PinsOf(facts.answer.table)) {
        for (const uint32_t tag : pin.Tags()) {
            if (const auto told = question.AnswerOf(tag)) {
                hosts[pin.address].insert(told->host);
            }
        }
        for (const uint32_t host : hosts[pin.address]) {
            if (facts.DeviceOf(htonl(host)).empty()) {
                answer.others[pin.address].insert(htonl(host));
            }
        }
    }
}

}  // namespace

BusAnswer AskBus(const BusSettings& settings, const Facts& facts) {
    BusAnswer answer;
    const std::vector<PinRef> pins = PinsOf(facts.answer.table);
    if (pins.empty()) {
        answer.problem = "no channel on the bus is known";
        return answer;
    }
    try {
        BusLink link(settings);
        link.Listen(BusLink::Hear::Reports);
        answer.was_asked = true;
        Question question(link, pins);
        Ask(link, question, facts, answer);
        FindOthers(question, facts, answer);
        answer.stale_inputs = StaleInputs(facts.answer.table, question, answer);
        // A different state may have changed between the two answers.
        if (!answer.stale_inputs.empty()) {
            const TableAnswer again = AskTable(facts.tqrd, std::chrono::milliseconds(1000));
            answer.stale_inputs = StaleInputs(again.table, question, answer);
        }
    } catch (const BusError& error) {
        answer.problem = error.what();
    }
    return answer;
}
