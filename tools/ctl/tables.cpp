// The tables of the command line.

#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/arguments.h"

namespace {

template <bool Options::*MEMBER>
void Switch(Options& options, const std::string&) {
    options.*MEMBER = true;
}

const ArgumentSpec PINS = {
    "ADDRESS[:PIN]", false, true, Completion::Pin, "Only what is about these", AddPins};

const char* const WATCH_DETAILS =
    "With pins, asks for them first and shows only what is about them; pins that nobody answers\n"
    "for are noted. With --changes, a line for each pin that changes: reports and answers of\n"
    "devices, and writes with their sender, which are not confirmed until a device answers.\n"
    "Without it, all messages; of two that are alike from one host within 250 ms, which devices\n"
    "send, only the first, unless --all asks for both.\n"
    "FORMAT has %p pin, %n its name, %x its text, %g its group, %l level, %o level before, %d\n"
    "duration, %k kind, %s state, %h host, %U seconds since 1970, %t time of day.";

const char* const RECORD_DETAILS =
    "The lines are those of watch --json; send plays them back. A file that is there already is\n"
    "overwritten with --force alone.";

const char* const SET_DETAILS =
    "All pins go in one message. A DURATION in ms is rounded to 10 to 310 ms in steps of 10 or "
    "250\n"
    "to 7750 ms in steps of 250, and the pin then returns; without one the level stays. Nobody\n"
    "answers a write: with --check the pins are read back until each has its level, and the exit\n"
    "status is 3 when one has not in the time of -W.";

const char* const WAIT_DETAILS =
    "Ends when all pins have their levels, which they may have from the start. A level counts "
    "when\n"
    "a device has told it; what was written only does not. With --edge each must change to its\n"
    "level while we wait. Without --for there is no limit.";

const char* const LIST_DETAILS =
    "RANGE is an address, or two with a '-' between; without it 0 to 255:255. Prints a line for "
    "each\n"
    "address that is there: the hosts that answer for it, its five inputs and its five outputs.\n"
    "0-0xFFFFFF asks for all there are, which takes four minutes.";

const char* const SEND_DETAILS =
    "Takes what every command prints with --json. A message goes to the port of its \"port\", "
    "without\n"
    "one to that of -p, and is acknowledged when its \"reliable\" is true; only \"id\" and "
    "\"items\"\n"
    "must be there. What is about one pin becomes a write, or a report when that is its \"kind\":\n"
    "  {\"pin\":\"1:2:out1\",\"level\":\"L\",\"duration\":500}";

}  // namespace

const std::vector<CommandSpec> COMMANDS = {
    {"list",
     "List the addresses that are on the bus",
     LIST_DETAILS,
     {{"RANGE", false, false, Completion::Pin, "Addresses to ask for", SetRange}},
     RunList},
    {"get",
     "Ask for pins and print their levels",
     "Prints a line for each pin: its name and L or H. Asks again until everything is answered or\n"
     "the time is over.",
     {{"ADDRESS[:PIN]", true, true, Completion::Pin, "A pin, or all pins of an address", AddPins}},
     RunGet},
    {"set",
     "Set pins",
     SET_DETAILS,
     {{"ADDRESS:PIN=LEVEL", true, true, Completion::PinLevel,
       "LEVEL is L or H (low or high), or L,DURATION or H,DURATION", AddWrite}},
     RunSet},
    {"wait",
     "Wait until pins have levels",
     WAIT_DETAILS,
     {{"ADDRESS:PIN=LEVEL", true, true, Completion::PinLevel, "LEVEL is L or H (low or high)",
       AddCondition}},
     RunWait},
    {"watch", "Print what happens, as it comes", WATCH_DETAILS, {PINS}, RunWatch},
    {"record",
     "Write what watch --json prints to a file",
     RECORD_DETAILS,
     {{"FILE", true, false, Completion::File, "File to write, - for standard output", SetRecording},
      PINS},
     RunRecord},
    {"send",
     "Send messages from a file, with the gaps between them",
     SEND_DETAILS,
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
    {"top",
     "Show every pin that is heard of, on the whole screen",
     "With an ADDRESS, asks for its pins first. What changed stands out for a moment and has a "
     "'*'.\n"
     "Type to show only pins with that text in name, pin or writer; Esc shows all, Tab sorts\n"
     "differently, Space pauses, F10 or Ctrl-C ends. With --json listens for the time of --for\n"
     "(default: 2 s) and then prints each pin.",
     {{"ADDRESS[:PIN]", false, true, Completion::Pin, "Ask for these first", AddPins}},
     RunTop},
};

const std::vector<OptionSpec> OPTIONS = {
    {"-i,--interface", "NAME|IP", Completion::Interface, nullptr,
     "Interface of the bus (default: as the system routes the group)",
     [](Options& options, const std::string& text) { options.bus.iface = text; }},
    {"-g,--group", "IP", Completion::None, nullptr, "Multicast group (default: 239.192.255.4)",
     SetGroup},
    {"-p,--ports", "SEND[:LISTEN]", Completion::None, nullptr,
     "Ports to send to and to listen on (default: 2060:2055)", SetPorts},
    {"-t,--to", "IP", Completion::None, nullptr, "Send to this host instead of the group", SetHost},
    {"-W,--wait", "SECONDS", Completion::None, nullptr,
     "How long to wait for answers and acknowledgements (default: 1)", SetWait},
    {"-n,--names", "FILE", Completion::File, nullptr,
     "File of names (default: $ORVEX_NAMES, else /etc/orvex/names)",
     [](Options& options, const std::string& text) { options.names_file = text; }},
    {"-j,--json", nullptr, Completion::None, nullptr, "Print JSON, one object a line",
     Switch<&Options::json>},
    {"-q,--quiet", nullptr, Completion::None, nullptr, "No notes",
     [](Options& options, const std::string&) { options.console.quiet = true; }},
    {"-v,--verbose", nullptr, Completion::None, nullptr,
     "Tell what goes on; show messages that are sent, and all items",
     [](Options& options, const std::string&) { options.console.verbose = true; }},
    {"-r,--reliable", nullptr, Completion::None, "set send",
     "Ask for acknowledgement (of a group, the first one counts)", Switch<&Options::reliable>},
    {"-r,--server", "IP[:PORT]", Completion::None, "channels doctor",
     "Where the control server is (default: 127.0.0.1:93)", SetServer},
    {"--plugin", nullptr, Completion::None, "doctor",
     "One line with performance data, and the exit statuses of a monitoring plugin",
     Switch<&Options::plugin>},
    {"--explain", "SRCA=VALUE", Completion::None, "channels",
     "Tell what the daemon makes of this field, or line, and why",
     [](Options& options, const std::string& text) { options.explain = text; }},
    {"-k,--check", nullptr, Completion::None, "set",
     "Read the pins back until they have their levels", Switch<&Options::check>},
    {"--any", nullptr, Completion::None, "wait", "One pin is enough", Switch<&Options::any>},
    {"--edge", nullptr, Completion::None, "wait", "Each pin must change to its level",
     Switch<&Options::edge>},
    {"-C,--changes", nullptr, Completion::None, "watch", "Print pins that change, and writes",
     Switch<&Options::changes>},
    {"-F,--format", "FORMAT", Completion::None, "watch", "Print changes in this form, see below",
     SetFormat},
    {"--heartbeat", "SECONDS", Completion::None, "watch",
     "Print a line that often, to show that we listen", SetHeartbeat},
    {"-a,--all", nullptr, Completion::None, "watch record", "Show repeats too",
     Switch<&Options::all>},
    {"-c,--count", "N", Completion::None, "watch record",
     "End after N messages; with pins, after N of their changes", SetCount},
    {"-f,--for", "SECONDS", Completion::None, "wait watch record channels top",
     "End after that time", SetLimit},
    {"--force", nullptr, Completion::None, "record", "Overwrite the file", Switch<&Options::force>},
    {"--fast", nullptr, Completion::None, "send", "Without gaps", Switch<&Options::fast>},
    {"--speed", "FACTOR", Completion::None, "send", "That many times as fast (default: 1)",
     SetSpeed},
    {"--loop", nullptr, Completion::None, "send", "Begin again at the end of the file",
     Switch<&Options::loop>},
};

const std::vector<StatusSpec> STATUSES = {
    {STATUS_DONE, "done"},
    {STATUS_FAILED, "not sent or refused; no access to the bus or a file"},
    {STATUS_USAGE, "wrong usage"},
    {STATUS_NO_ANSWER, "no answer, no acknowledgement, not as awaited in time"},
};
