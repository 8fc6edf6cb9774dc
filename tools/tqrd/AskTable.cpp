#include "tools/tqrd/AskTable.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/tqrd/TqrdClient.h"

namespace {

const std::chrono::milliseconds SILENCE(200);

// Whether the state of every requested input has come.
bool HasInputs(const ChannelTable& table) {
    const std::vector<int> channels = table.Find(KIND_BUS);
    return std::none_of(channels.begin(), channels.end(),
                        [&table](int number) { return table.Channel(number).input.empty(); });
}

// Stores a line "GPI n state" about one of the inputs.
void TakeInput(const std::string& line, int first, int last, std::map<int, std::string>& states) {
    int number = 0;
    int behind = 0;
    if (sscanf(line.c_str(), "GPI %d %n", &number, &behind) == 1 && behind > 0 && number >= first &&
        number <= last) {
        states[number] = line.substr(static_cast<size_t>(behind));
    }
}

}  // namespace

TableAnswer AskTable(const CSvcAddress& server, std::chrono::milliseconds limit,
                     std::chrono::milliseconds listen) {
    using Clock = TqrdClient::Clock;
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + std::max(limit, listen);
    Clock::time_point until = end;
    TqrdClient client;
    TableAnswer answer;
    client.Connect(server, limit);
    client.Send("SET\nCFG GPO");
    for (std::string line; client.Wait(line, until);) {
        const ChannelTable::Subject subject = answer.table.Take(line);
        if (subject.kind == ChannelTable::Kind::Configuration &&
            answer.table.Channel(subject.number).config.proto == KIND_BUS) {
            client.Send("ADD GPI " + std::to_string(subject.number));
        }
        answer.has_answered = true;
        until = end;
        if (HasInputs(answer.table)) {
            until = std::min(end, std::max(begin + listen, Clock::now() + SILENCE));
        }
    }
    answer.problem = client.Problem();
    answer.error = client.Error();
    return answer;
}

InputsAnswer AskInputs(const CSvcAddress& server, int first, int last,
                       std::chrono::milliseconds limit, std::chrono::milliseconds listen) {
    using Clock = TqrdClient::Clock;
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + std::max(limit, listen);
    const size_t wanted = static_cast<size_t>(last - first) + 1;
    Clock::time_point until = begin + limit / 2;
    bool asks_more = true;
    TqrdClient client;
    InputsAnswer answer;
    client.Connect(server, limit);
    for (int number = first; number <= last; ++number) {
        client.Send("ADD GPI " + std::to_string(number));
    }
    while (client.IsOpen() && Clock::now() < end) {
        std::string line;
        if (client.Wait(line, until)) {
            answer.has_answered = true;
            TakeInput(line, first, last, answer.states);
            until = answer.states.size() == wanted ? begin + listen : end;
        } else if (answer.states.size() == wanted) {
            break;
        } else if (std::exchange(asks_more, false) && !answer.has_answered) {
            client.Send("SET\nCFG GPO");
            until = end;
        }
    }
    answer.problem = client.Problem();
    answer.error = client.Error();
    return answer;
}
