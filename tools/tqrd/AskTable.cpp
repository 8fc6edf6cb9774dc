#include "tools/tqrd/AskTable.h"

#include <algorithm>

#include "tools/tqrd/TqrdClient.h"

namespace {

const std::chrono::milliseconds SILENCE(200);

// Whether the state of every requested input has come.
bool HasInputs(const ChannelTable& table) {
    const std::vector<int> channels = table.Find(KIND_BUS);
    return std::none_of(channels.begin(), channels.end(),
                        [&table](int number) { return table.Channel(number).input.empty(); });
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
