// The handlers of control lines. The first line of the input holds options: '-' for no connection
// to TQRD, 'd' for debug mode.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fuzz/Check.h"
#include "fuzz/Router.h"
#include "tqr/trace.h"

namespace {

struct Table {
    Channel channel[CHANNEL_COUNT];
    uint32_t interface;
};

Table current_table() {
    Table table = {};
    std::copy(std::begin(channels), std::end(channels), table.channel);
    table.interface = iface;
    return table;
}

bool is_same(const Channel& a, const Channel& b) {
    return a == b && memcmp(a.gpi_state, b.gpi_state, PIN_COUNT) == 0 &&
           memcmp(a.gpo_state, b.gpo_state, PIN_COUNT) == 0;
}

std::string state_of(const char* text) {
    std::string state = std::string(text).substr(0, PIN_COUNT);
    state.resize(PIN_COUNT, '\0');
    return state;
}

// The items of a report: the pins up to the first character that is no level.
std::string items_of(const char* state, uint32_t ach, int& count) {
    std::string items;
    for (int i = 0; i < PIN_COUNT && state[i] != '\0' && strchr("LHlh", state[i]); ++i) {
        if (state[i] == 'L' || state[i] == 'H') {
            const char item[] = {static_cast<char>(ach >> 16),
                                 static_cast<char>(ach >> 8),
                                 static_cast<char>(ach),
                                 static_cast<char>(13 - i),
                                 7,
                                 static_cast<char>(state[i] == 'L' ? 1 : 0)};
            items.append(item, sizeof item);
            ++count;
        }
    }
    return items;
}

void check_unchanged(const Table& before, int except) {
    for (int i = 0; i < CHANNEL_COUNT; ++i) {
        CHECK(i == except || is_same(channels[i], before.channel[i]));
    }
}

// The lines that turn one configuration into another.
std::string lines_between(const ChannelConfig& before, const ChannelConfig& after, int number) {
    const std::string n = std::to_string(number) + "\n";
    return (before.proto == KIND_BUS ? "DEL GPI " + n : "") + "GPO " + std::to_string(number) +
           " HHHHH\n" + (after.proto == KIND_BUS ? "ADD GPI " + n : "");
}

void check_told(Router& router, const std::string& expected) {
    const bool connected = local.get_fd() != -1;
    const std::string lines = connected ? expected : "";
    CHECK(router.tqrd.Take(lines.size()) == lines);
}

void handle_CFG(Router& router, const char* text) {
    const Table before = current_table();
    const long number = strncmp(text, "GPO ", 4) == 0 ? strtol(text + 4, nullptr, 0) : 0;
    const int index = static_cast<int>(std::clamp(number, 0L, 33L)) - 1;
    const int changed = parse_CFG(text);
    check_unchanged(before, changed != 0 ? index : -1);
    if (changed != 0) {
        const Channel& channel = channels[index];
        CHECK(!(channel == before.channel[index]));
        CHECK(std::string(channel.gpo_state, PIN_COUNT) == "HHHHH");
        CHECK(channel.proto == KIND_REMOTE || (channel.port == 0 && channel.gpi == 0));
        CHECK(channel.proto == KIND_BUS || channel.ach == 0);
        check_told(router, lines_between(before.channel[index], channel, index + 1));
        CHECK(parse_CFG(text) == 0);
    }
    check_told(router, "");
    CHECK(iface == before.interface);
}

void handle_GPI(Router& router, const char* text) {
    const Table before = current_table();
    char* behind = nullptr;
    const long number = strtol(text, &behind, 0);
    const bool stored = number >= 1 && number <= CHANNEL_COUNT && *behind == ' ' &&
                        channels[number - 1].proto == KIND_BUS;
    parse_GPI(text);
    check_unchanged(before, stored ? static_cast<int>(number) - 1 : -1);
    std::vector<std::string> reports;
    if (stored) {
        const Channel& channel = channels[number - 1];
        CHECK(channel == before.channel[number - 1]);
        CHECK(std::string(channel.gpi_state, PIN_COUNT) == state_of(behind + 1));
        int count = 0;
        const std::string items = items_of(behind + 1, channel.ach, count);
        if (count > 0) {
            reports.push_back("INDI" + std::string({0, static_cast<char>(count)}) + items);
        }
    }
    CHECK(router.TakeReports(reports.size()) == reports);
    check_told(router, "");
}

void handle_GPO(Router& router, const char* text) {
    const Table before = current_table();
    char* behind = nullptr;
    const long number = strtol(text, &behind, 0);
    const bool stored =
        number >= 1 && number <= 8 && *behind == ' ' && channels[number - 1].proto == KIND_BUS;
    parse_GPO(text);
    check_unchanged(before, stored ? static_cast<int>(number) - 1 : -1);
    CHECK(!stored ||
          std::string(channels[number - 1].gpo_state, PIN_COUNT) == state_of(behind + 1));
    check_told(router, "");
}

void handle_SET(Router& router, const char* text) {
    const Table before = current_table();
    iface_changed = 0;
    parse_SET(text);
    check_unchanged(before, -1);
    CHECK((iface != before.interface) == (iface_changed != 0));
    check_told(router, "");
}

void handle(Router& router, const std::string& line) {
    const char* const text = line.c_str() + std::min<size_t>(line.size(), 4);
    if (line.compare(0, 4, "CFG ") == 0) {
        handle_CFG(router, text);
    } else if (line.compare(0, 4, "GPI ") == 0) {
        handle_GPI(router, text);
    } else if (line.compare(0, 4, "GPO ") == 0) {
        handle_GPO(router, text);
    } else if (line.compare(0, 4, "SET ") == 0) {
        handle_SET(router, text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Router& router = Router::Get();
    // Not a stream: the memory sanitizer can't see what the C++ library does inside it.
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::string line = input.substr(0, input.find('\n'));
    router.Restart(line.find('-') == std::string::npos);
    dbg = line.find('d') == std::string::npos ? 0 : 1;
    for (size_t start = line.size() + 1; start < size; start += line.size() + 1) {
        line = input.substr(start, input.find('\n', start) - start);
        handle(router, line);
        router.AcceptRemotes();
        for (int i = 0; i < CHANNEL_COUNT; ++i) {
            CHECK(gpiocli.get_fd(i) == -1 || channels[i].proto == KIND_REMOTE);
        }
    }
    return 0;
}
