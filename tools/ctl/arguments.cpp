#include "tools/ctl/arguments.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "tools/ctl/Options.h"

namespace {

const double MAX_WAIT = 3600;
const double MAX_SECONDS = 1e8;
const double MAX_SPEED = 1000;
const unsigned long MAX_RUNS = 1000;
const unsigned long MAX_PARALLEL = 100;
const unsigned long MAX_COUNT = 1000000000;
const unsigned long MAX_FILES = 1000;
const unsigned long INPUT_COUNT = 256;  // that a remote server can have

[[noreturn]] void Refuse(const std::string& what, const std::string& text) {
    throw std::invalid_argument("not " + what + ": " + text);
}

uint16_t ParsePort(const std::string& text) {
    return static_cast<uint16_t>(ParseCount(text, 65535, "a port"));
}

uint32_t ParseHost(const std::string& text) {
    in_addr address = {};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        Refuse("an IPv4 address", text);
    }
    return ntohl(address.s_addr);
}

uint32_t ParseAddress(const Options& options, const std::string& text) {
    const PinRef pins = options.names.Parse(text);
    if (pins.circuit) {
        throw std::invalid_argument(text + " is a pin; a range is of addresses");
    }
    return pins.address;
}

// Seconds, or a number with its unit: ms, s, m or h.
double ParseTime(const std::string& text) {
    char* end = nullptr;
    const double number = strtod(text.c_str(), &end);
    const std::string unit = end;
    const double factor = unit.empty() || unit == "s" ? 1
                          : unit == "ms"              ? 0.001
                          : unit == "m"               ? 60
                          : unit == "h"               ? 3600
                                                      : 0;
    if (end == text.c_str() || !(number * factor >= 0.001 && number * factor <= MAX_SECONDS)) {
        Refuse("a time, such as 500ms, 2s or 5m", text);
    }
    return number * factor;
}

// Whether the text would be read as pins.
bool IsPins(const Options& options, const std::string& text) {
    try {
        options.names.Parse(text);
        return true;
    } catch (const std::invalid_argument&) {
        return false;
    }
}

}  // namespace

double ParseSeconds(const std::string& text, double max) {
    char* end = nullptr;
    const double seconds = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(seconds >= 0.001 && seconds <= max)) {
        Refuse("a number of seconds from 0.001 to " + std::to_string(static_cast<long>(max)), text);
    }
    return seconds;
}

unsigned long ParseCount(const std::string& text, unsigned long max, const char* what) {
    char* end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 ||
        number == 0 || number > max) {
        Refuse(what, text);
    }
    return number;
}

void SetGroup(Options& options, const std::string& text) {
    options.bus.group = ParseHost(text);
    if (options.bus.group >> 28 != 0xE) {
        Refuse("a multicast group", text);
    }
}

void SetPorts(Options& options, const std::string& text) {
    const size_t colon = std::min(text.find(':'), text.size());
    if (colon > 0 || text.empty()) {
        options.bus.send_port = ParsePort(text.substr(0, colon));
    }
    if (colon < text.size()) {
        options.bus.listen_port = ParsePort(text.substr(colon + 1));
    }
}

void SetHost(Options& options, const std::string& text) {
    options.bus.to = ParseHost(text);
}

void SetWait(Options& options, const std::string& text) {
    options.bus.wait = ParseSeconds(text, MAX_WAIT);
}

// "IP", "IP:PORT" or "PORT"
void SetServer(Options& options, const std::string& text) {
    const size_t colon = text.find(':');
    if (colon != std::string::npos || text.find('.') != std::string::npos) {
        options.tqrd.SetHost(ParseHost(text.substr(0, colon)));
    }
    if (colon != std::string::npos || text.find('.') == std::string::npos) {
        options.tqrd.SetPort(ParsePort(colon == std::string::npos ? text : text.substr(colon + 1)));
    }
}

void SetCount(Options& options, const std::string& text) {
    options.count = ParseCount(text, MAX_COUNT, "a count from 1 on");
}

void SetLimit(Options& options, const std::string& text) {
    options.seconds = ParseSeconds(text, MAX_SECONDS);
}

void SetHold(Options& options, const std::string& text) {
    options.hold = ParseTime(text);
}

void SetTimeout(Options& options, const std::string& text) {
    options.runner.timeout = ParseTime(text);
}

// "N/s", "N/m" or "N/h"
void SetRunLimit(Options& options, const std::string& text) {
    const size_t slash = text.find('/');
    const std::string unit = slash == std::string::npos ? "" : text.substr(slash + 1);
    if (unit != "s" && unit != "m" && unit != "h") {
        Refuse("a number of runs in a second, minute or hour, such as 10/s", text);
    }
    options.runner.limit = {
        ParseCount(text.substr(0, slash), MAX_RUNS, "a number of runs from 1 to 1000"),
        unit == "s"   ? 1.0
        : unit == "m" ? 60.0
                      : 3600.0};
}

void SetParallel(Options& options, const std::string& text) {
    options.runner.parallel = ParseCount(text, MAX_PARALLEL, "a number of commands from 1 to 100");
}

void SetHeartbeat(Options& options, const std::string& text) {
    options.heartbeat = ParseSeconds(text, MAX_SECONDS);
}

// "N" or "N-M"
void SetInputs(Options& options, const std::string& text) {
    const char* const what = "inputs, such as 3 or 1-8, from 1 to 256";
    const size_t dash = text.find('-');
    const auto first = static_cast<int>(ParseCount(text.substr(0, dash), INPUT_COUNT, what));
    const int last = dash == std::string::npos
                         ? first
                         : static_cast<int>(ParseCount(text.substr(dash + 1), INPUT_COUNT, what));
    if (first > last) {
        throw std::invalid_argument("a range begins with its lower end: " + text);
    }
    options.inputs = NumberRange{first, last};
}

// Bytes, or a number with its unit: K, M or G.
void SetMaxSize(Options& options, const std::string& text) {
    const std::string units = "KMG";
    const size_t unit = text.empty() ? units.npos : units.find(text.back());
    const bool has_unit = unit != units.npos;
    const uint64_t number = ParseCount(text.substr(0, text.size() - (has_unit ? 1 : 0)), MAX_COUNT,
                                       "a size, such as 500K or 100M");
    options.max_size = has_unit ? number << (10 * (unit + 1)) : number;
}

void SetKeep(Options& options, const std::string& text) {
    options.keep = ParseCount(text, MAX_FILES, "a number of files from 1 to 1000");
}

void SetSpeed(Options& options, const std::string& text) {
    char* end = nullptr;
    options.speed = strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' ||
        !(options.speed >= 0.001 && options.speed <= MAX_SPEED)) {
        Refuse("a speed from 0.001 to 1000", text);
    }
}

void SetFormat(Options& options, const std::string& text) {
    options.format = ChangeFormat(text);
    options.changes = true;
}

void AddPins(Options& options, const std::string& text) {
    options.pins.push_back(options.names.Parse(text));
}

void AddWrite(Options& options, const std::string& text) {
    const PinWrite write = ParsePinWrite(text, options.names);
    for (const PinWrite& other : options.writes) {
        if (other.tag == write.tag) {
            throw std::invalid_argument(options.names.Label(write.tag) + " is given twice");
        }
    }
    options.writes.push_back(write);
}

void AddCondition(Options& options, const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        Refuse("PIN=LEVEL", text);
    }
    options.conditions.push_back(
        {options.names.ParsePin(text.substr(0, equals)), ParseLevel(text.substr(equals + 1))});
}

void AddCommandWord(Options& options, const std::string& text) {
    options.runner.command.push_back(text);
}

// "A", or "A-B". Names may contain a '-' too.
void SetRange(Options& options, const std::string& text) {
    AddressRange& range = options.range;
    range.is_default = false;
    const size_t dash = text.find('-');
    if (dash == std::string::npos || options.names.Find(text) != nullptr) {
        range.first = range.last = ParseAddress(options, text);
        return;
    }
    range.first = ParseAddress(options, text.substr(0, dash));
    range.last = ParseAddress(options, text.substr(dash + 1));
    if (range.first > range.last) {
        throw std::invalid_argument("a range begins with its lower end: " + text);
    }
}

void SetRole(Options& options, const std::string& text) {
    if (text != "control" && text != "remote" && text != "peer") {
        Refuse("control, remote or peer", text);
    }
    options.role = text;
}

void SetInput(Options& options, const std::string& text) {
    options.input = static_cast<int>(ParseCount(text, INPUT_COUNT, "an input from 1 to 256"));
}

void SetFile(Options& options, const std::string& text) {
    options.file = text;
}

void SetRecording(Options& options, const std::string& text) {
    if (IsPins(options, text)) {
        throw std::invalid_argument(text + " is an address or pin; the FILE comes first (./" +
                                    text + " is a file)");
    }
    options.file = text;
}
