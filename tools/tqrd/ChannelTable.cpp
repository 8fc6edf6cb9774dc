#include "tools/tqrd/ChannelTable.h"

#include <cstring>

#include "tools/tqrd/SourceText.h"
#include "tqr/tqr_util.h"
#include "tqr/trace.h"

namespace {

const size_t WORD_SIZE = 4;  // "CFG " and others

const char* SkipWord(const std::string& line, const char* word) {
    return line.compare(0, WORD_SIZE, word) == 0 ? line.c_str() + WORD_SIZE : nullptr;
}

// "none", or a text in quotes.
std::string ParseProblems(const std::string& field) {
    return field.size() > 2 && field[0] == '"' ? field.substr(1, field.size() - 2) : "";
}

}  // namespace

ChannelTable::Subject ChannelTable::Take(const std::string& line) {
    if (const char* const text = SkipWord(line, "CFG ")) {
        return TakeConfiguration(text);
    }
    if (const char* const text = SkipWord(line, "GPI ")) {
        return TakeState(text, Kind::Input);
    }
    if (const char* const text = SkipWord(line, "GPO ")) {
        return TakeState(text, Kind::Output);
    }
    if (const char* const text = SkipWord(line, "SET ")) {
        if (const char* const value = tqr_findval(text, "GPIO_PROBLEMS")) {
            m_problems = ParseProblems(FieldText(value));
            return {};
        }
        if (const char* const value = tqr_findval(text, "NIC_IPADDR")) {
            m_interface = url2ip(value);
            return {Kind::Settings, 0};
        }
    }
    return {};
}

ChannelTable::Subject ChannelTable::TakeConfiguration(const char* text) {
    int number = 0;
    const char* const source = find_source(text, number);
    if (number == 0) {
        return {};
    }
    ChannelInfo& channel = m_channels[Index(number)];
    if (source != nullptr || !channel.is_configured) {
        channel.line = std::string("CFG ") + text;
    }
    if (source == nullptr) {
        return {};
    }
    channel.is_configured = true;
    channel.source = FieldText(source);
    channel.config = parse_source(source);
    return {Kind::Configuration, number};
}

// "n state", of any channel: unlike the daemon, this also stores outputs above 8.
ChannelTable::Subject ChannelTable::TakeState(const char* text, Kind kind) {
    const char* behind = nullptr;
    const long number = tqr_strtol(text, &behind, 0);
    if (number < 1 || number > CHANNEL_COUNT || *behind != ' ') {
        return {};
    }
    ChannelInfo& channel = m_channels[Index(static_cast<int>(number))];
    std::string& state = kind == Kind::Input ? channel.input : channel.output;
    state.assign(behind + 1, strnlen(behind + 1, PIN_COUNT));
    return {kind, static_cast<int>(number)};
}

std::vector<int> ChannelTable::Find(ChannelKind kind) const {
    std::vector<int> numbers;
    for (int number = 1; number <= CHANNEL_COUNT; ++number) {
        if (Channel(number).config.proto == kind) {
            numbers.push_back(number);
        }
    }
    return numbers;
}
