// The tables of the command line.

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"

namespace {

const double MAX_WAIT = 3600;
const double MAX_SECONDS = 1e8;

[[noreturn]] void Refuse(const std::string& what, const std::string& text) {
    throw std::invalid_argument("not " + what + ": " + text);
}

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

void AddPins(Options& options, const std::string& text) {
    options.pins.push_back(options.names.Parse(text));
}

void AddWrite(Options& options, const std::string& text) {
    const PinWrite write = ParsePinWrite(text, options.names);
    for (const PinWrite& other : options.writes) {
        if (other.tag == write.tag) {
            throw std::invalid_argument(PinText(write.tag) + " is given twice");
        }
    }
    options.writes.push_back(write);
}

void SetFile(Options& options, const std::string& text) {
    options.file = text;
}

const char* const WATCH_DETAILS =
    "With an ADDRESS, asks for its pins first and shows only messages about it; what has no "
    "answer\n"
    "in time is told. Devices send everything twice: the second of two messages that are alike,\n"
    "from one host within 250 ms, is not shown without --all.";

}  // namespace

const std::vector<CommandSpec> COMMANDS = {
    {"get",
     "Ask for pins and print their levels",
     "Prints a line for each pin: its name and L or H. Asks again until everything is answered or\n"
     "the time is over.",
     {{"ADDRESS[:PIN]", true, true, Completion::Pin, "A pin, or all pins of an address", AddPins}},
     RunGet},
    {"set",
     "Set pins",
     "All pins go in one message. A DURATION in ms is rounded to 10 to 310 ms in steps of 10 or "
     "250\n"
     "to 7750 ms in steps of 250, and the pin then returns; without one the level stays.",
     {{"ADDRESS:PIN=LEVEL", true, true, Completion::PinWrite,
       "LEVEL is L or H, or L,DURATION or H,DURATION", AddWrite}},
     RunSet},
    {"watch",
     "Print what is reported, as it comes",
     WATCH_DETAILS,
     {{"ADDRESS[:PIN]", false, true, Completion::Pin, "Only messages about these", AddPins}},
     RunWatch},
    {"record",
     "Write what watch --json prints to a file",
     WATCH_DETAILS,
     {{"FILE", true, false, Completion::File, "File to write, - for standard output", SetFile},
      {"ADDRESS[:PIN]", false, true, Completion::Pin, "Only messages about these", AddPins}},
     RunWatch},
    {"send",
     "Send messages from a file, with the gaps between them",
     "Each line is a message as watch --json and record write it. It goes to the port of its\n"
     "\"port\", without one to that of -p, and is acknowledged when its \"reliable\" is true. "
     "Only\n"
     "\"id\" and \"items\" must be there, and a \"pin\" may stand in for a \"tag\":\n"
     "  {\"id\":\"WRNI\",\"items\":[{\"pin\":\"1:2:out1\",\"type\":\"byte\",\"value\":64}]}",
     {{"FILE", true, false, Completion::File, "File to read, - for standard input", SetFile}},
     RunSend},
    {"channels",
     "Print the channels of the control server",
     "For each output the source as it is written, what the daemon makes of it, and the states of\n"
     "output and input as the server tells them: inputs when asked, outputs when they change, so\n"
     "'-' stands for what it did not tell. What does not mean what it seems to is explained.",
     {},
     RunChannels},
    {"doctor",
     "Find out what is wrong with the daemon of this device",
     "Looks at process, port, interface, group, connections and queues, asks TQRD and the bus, "
     "and\n"
     "prints a line a finding: what is the matter, why, and what mends it. Ends with 1 when\n"
     "something is wrong. As root it sees all; what it can't see it tells.",
     {},
     RunDoctor},
};

const std::vector<OptionSpec> OPTIONS = {
    {"-i,--interface", "NAME|IP", Completion::Interface, nullptr,
     "Interface of the bus (default: as the system routes the group)",
     [](Options& options, const std::string& text) { options.bus.iface = text; }},
    {"-g,--group", "IP", Completion::None, nullptr, "Multicast group (default: 239.192.255.4)",
     SetGroup},
    {"-p,--ports", "SEND[:LISTEN]", Completion::None, nullptr,
     "Ports to send to and to listen on (default: 2060:2055)", SetPorts},
    {"-t,--to", "IP", Completion::None, nullptr, "Send to this host instead of the group",
     [](Options& options, const std::string& text) { options.bus.to = ParseHost(text); }},
    {"-W,--wait", "SECONDS", Completion::None, nullptr,
     "How long to wait for answers and acknowledgements (default: 1)",
     [](Options& options, const std::string& text) {
         options.bus.wait = ParseSeconds(text, MAX_WAIT);
     }},
    {"-j,--json", nullptr, Completion::None, nullptr, "Print messages as JSON, one object a line",
     [](Options& options, const std::string&) { options.json = true; }},
    {"-q,--quiet", nullptr, Completion::None, nullptr, "No notes",
     [](Options& options, const std::string&) { options.console.quiet = true; }},
    {"-v,--verbose", nullptr, Completion::None, nullptr,
     "Tell what goes on; show messages that are sent, and all items",
     [](Options& options, const std::string&) { options.console.verbose = true; }},
    {"-n,--names", "FILE", Completion::File, nullptr,
     "File of names (default: $ORVEX_NAMES, else /etc/orvex/names)",
     [](Options& options, const std::string& text) { options.names_file = text; }},
    {"-r,--reliable", nullptr, Completion::None, "set send",
     "Ask for acknowledgement (of a group, the first one counts)",
     [](Options& options, const std::string&) { options.reliable = true; }},
    {"-r,--server", "IP[:PORT]", Completion::None, "channels doctor",
     "Where the control server is (default: 127.0.0.1:93)", SetServer},
    {"--plugin", nullptr, Completion::None, "doctor",
     "One line with performance data, and the exit statuses of a monitoring plugin",
     [](Options& options, const std::string&) { options.plugin = true; }},
    {"--explain", "SRCA=VALUE", Completion::None, "channels",
     "Tell what the daemon makes of this field, or line, and why",
     [](Options& options, const std::string& text) { options.explain = text; }},
    {"-a,--all", nullptr, Completion::None, "watch record", "Show repeats too",
     [](Options& options, const std::string&) { options.all = true; }},
    {"-c,--count", "N", Completion::None, "watch record",
     "End after N messages, answers to the first question not counted",
     [](Options& options, const std::string& text) {
         options.count = ParseCount(text, 1000000000, "a count from 1 on");
     }},
    {"-f,--for", "SECONDS", Completion::None, "watch record channels", "End after that time",
     [](Options& options, const std::string& text) {
         options.seconds = ParseSeconds(text, MAX_SECONDS);
     }},
    {"--fast", nullptr, Completion::None, "send", "Without gaps",
     [](Options& options, const std::string&) { options.fast = true; }},
};

const std::vector<StatusSpec> STATUSES = {
    {STATUS_DONE, "done"},
    {STATUS_FAILED, "not sent or refused; no access to the bus or a file"},
    {STATUS_USAGE, "wrong usage"},
    {STATUS_NO_ANSWER, "no answer, no acknowledgement or not --count messages in time"},
};
