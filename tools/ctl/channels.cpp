// channels: the control server's table, or the meaning of a source.

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "tools/base/LineBuffer.h"
#include "tools/bus/Interface.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"
#include "tools/tqrd/AskTable.h"
#include "tools/tqrd/SourceNotes.h"
#include "tools/tqrd/SourceText.h"

namespace {

using Object = nlohmann::ordered_json;
using Words = std::vector<std::string>;

std::string Meaning(const ChannelConfig& config, const Names& names) {
    const Names::Entry* const entry =
        config.proto == KIND_BUS ? names.OfAddress(config.ach) : nullptr;
    return DescribeSource(config) + (entry != nullptr ? " (" + entry->name + ")" : "");
}

Object SourceJson(const SourceReading& reading, const Names& names) {
    const ChannelConfig& config = reading.config;
    Object json;
    json["source"] = reading.source;
    switch (config.proto) {
        case KIND_BUS:
            json["kind"] = "bus";
            json["address"] = config.ach;
            if (const Names::Entry* const entry = names.OfAddress(config.ach)) {
                json["name"] = entry->name;
                if (!entry->text.empty()) {
                    json["text"] = entry->text;
                }
            }
            break;
        case KIND_REMOTE:
            json["kind"] = "remote";
            json["server"] = RemoteServer(config);
            json["follows"] = RemoteInput(config);
            break;
        default:
            json["kind"] = "none";
            break;
    }
    json["meaning"] = DescribeSource(config);
    json["notes"] = reading.notes;
    return json;
}

// Makes everything that a server sends printable: what is not UTF-8 is replaced.
std::string JsonLine(const Object& json) {
    return json.dump(-1, ' ', true, Object::error_handler_t::replace) + "\n";
}

int Explain(const std::string& text, const Options& options, Output& output) {
    auto reading = ReadSource(text);
    if (!reading) {
        throw Failure(STATUS_FAILED,
                      "no field SRCA: the daemon ignores the line, the channel stays as it is" +
                          (text.find('=') == std::string::npos && !text.empty()
                               ? "; a source alone is given as SRCA=" + text
                               : ""));
    }
    if (!reading->defaults.empty()) {
        reading->notes.push_back(reading->defaults);
    }
    if (options.json) {
        output.Write(JsonLine(SourceJson(*reading, options.names)));
        return STATUS_DONE;
    }
    output.Write(Meaning(reading->config, options.names) + "\n");
    for (const std::string& note : reading->notes) {
        output.WriteLine("  " + note, 2);
    }
    return STATUS_DONE;
}

// The notes about the channel's source. Later fields matter, so the whole line is parsed.
SourceReading Reading(const ChannelInfo& channel) {
    return ReadSource(channel.line)
        .value_or(SourceReading{
            "", {}, {"No field SRCA: the daemon ignores the line " + channel.line}, {}});
}

std::string OrDash(const std::string& text) {
    return text.empty() ? "-" : text;
}

void PrintText(const ChannelTable& table, const Names& names, Output& output) {
    std::vector<Words> rows = {{"OUTPUT", "SOURCE", "DRIVEN BY", "STATE", "INPUT"}};
    std::vector<Words> notes(1);
    for (int number = 1; number <= CHANNEL_COUNT; ++number) {
        const ChannelInfo& channel = table.Channel(number);
        if (!channel.line.empty()) {
            const bool is_bus = channel.config.proto == KIND_BUS;
            rows.push_back({std::to_string(number), OrDash(Printable(channel.source)),
                            Meaning(channel.config, names), OrDash(Printable(channel.output)),
                            is_bus ? OrDash(Printable(channel.input)) : ""});
            notes.push_back(Reading(channel).notes);
        }
    }
    Words::size_type widths[5] = {};
    for (const Words& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (size_t r = 0; r < rows.size(); ++r) {
        std::string text;
        for (size_t i = 0; i < rows[r].size(); ++i) {
            text += rows[r][i] + std::string(widths[i] - rows[r][i].size() + 2, ' ');
        }
        output.Write(text.substr(0, text.find_last_not_of(' ') + 1) + "\n");
        for (const std::string& note : notes[r]) {
            output.WriteLine("        " + Printable(note), 8);
        }
    }
}

void PrintJson(const ChannelTable& table, const Names& names, Output& output) {
    const auto state = [](const std::string& text) {
        return text.empty() ? Object() : Object(text);
    };
    for (int number = 1; number <= CHANNEL_COUNT; ++number) {
        const ChannelInfo& channel = table.Channel(number);
        if (!channel.line.empty()) {
            Object json = {{"channel", number}};
            json.update(SourceJson(Reading(channel), names));
            if (!channel.is_configured) {
                json["source"] = nullptr;
            }
            json["output"] = state(channel.output);
            json["input"] = state(channel.input);
            output.Write(JsonLine(json));
        }
    }
}

std::chrono::milliseconds Milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
}

std::string ServerText(const Options& options) {
    return HostText(static_cast<uint32_t>(options.tqrd.GetHost())) + ":" +
           std::to_string(options.tqrd.GetPort());
}

[[noreturn]] void FailToConnect(const Options& options, const std::string& problem, int error) {
    throw Failure(error == ETIMEDOUT ? STATUS_NO_ANSWER : STATUS_FAILED,
                  "can't connect to " + ServerText(options) + ": " + problem);
}

// Why no state came.
[[noreturn]] void FailWithoutInputs(const Options& options, const InputsAnswer& answer) {
    if (answer.error != 0) {
        FailToConnect(options, answer.problem, answer.error);
    }
    throw Failure(STATUS_NO_ANSWER,
                  ServerText(options) +
                      (!answer.problem.empty() ? " sends no states of inputs: " + answer.problem
                       : answer.has_answered
                           ? " is well, but sends no states of these inputs"
                           : " accepts the connection and answers nothing: it hangs, or has none "
                             "of these inputs"));
}

// The inputs of a remote GPIO server.
int PrintInputs(const NumberRange& range, const Options& options, Output& output) {
    const InputsAnswer answer =
        AskInputs(options.tqrd, range.first, range.last, Milliseconds(options.bus.wait),
                  Milliseconds(options.seconds.value_or(0)));
    if (answer.states.empty()) {
        FailWithoutInputs(options, answer);
    }
    if (!options.json) {
        output.Write("INPUT  STATE\n");
    }
    for (int number = range.first; number <= range.last; ++number) {
        const auto state = answer.states.find(number);
        const bool is_known = state != answer.states.end();
        if (options.json) {
            output.Write(JsonLine(
                {{"input", number}, {"state", is_known ? Object(state->second) : Object()}}));
        } else {
            const std::string name = std::to_string(number);
            output.Write(name + std::string(7 - name.size(), ' ') +
                         (is_known ? Printable(state->second) : "-") + "\n");
        }
    }
    const int missing = range.last - range.first + 1 - static_cast<int>(answer.states.size());
    if (missing > 0) {
        options.console.Note(ServerText(options) + " sends no state of " + std::to_string(missing) +
                             " of these inputs");
    }
    return missing > 0 ? STATUS_NO_ANSWER : STATUS_DONE;
}

}  // namespace

int RunChannels(const Options& options) {
    Output output(options);
    if (options.explain) {
        return Explain(*options.explain, options, output);
    }
    if (options.inputs) {
        return PrintInputs(*options.inputs, options, output);
    }
    const TableAnswer answer = AskTable(options.tqrd, Milliseconds(options.bus.wait),
                                        Milliseconds(options.seconds.value_or(0)));
    const std::string server = ServerText(options);
    if (!answer.has_answered) {
        if (answer.error != 0) {
            FailToConnect(options, answer.problem, answer.error);
        }
        throw Failure(
            STATUS_NO_ANSWER,
            server + " sends no channels" +
                (answer.problem.empty() ? "; --inputs 1-8 asks a remote GPIO server for its inputs"
                                        : ": " + answer.problem));
    }
    (options.json ? PrintJson : PrintText)(answer.table, options.names, output);
    if (!answer.problem.empty()) {
        options.console.Note(server + ": " + answer.problem);
    }
    return STATUS_DONE;
}
