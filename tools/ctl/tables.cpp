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

const ArgumentSpec PINS = {"ADDRESS[:PIN]",   false,  true, Completion::Pin,
                           "Only these pins", AddPins};

const char* const WATCH_DETAILS =
    "With pins, reads them first, notes those without an answer, and shows only what\n"
    "concerns them. With --changes, prints a line for each pin that changes: reports\n"
    "and answers of devices, and writes with their sender, which are not confirmed\n"
    "until a device answers. Without it, prints all messages. Devices send each\n"
    "message twice; the second one is shown with --all.\n"
    "FORMAT has %p pin, %n its name, %x its text, %g its group, %l level, %o level\n"
    "before, %d duration, %k kind, %s state, %h host, %U seconds since 1970, %t time\n"
    "of day.";

const char* const RECORD_DETAILS =
    "The lines are those of watch --json; send plays them back. An existing file is\n"
    "overwritten only with --force. With --max-size or --keep, FILE is put aside as\n"
    "FILE.1 when it is full or SIGHUP comes, FILE.1 as FILE.2, and so on.";

const char* const SET_DETAILS =
    "All pins are set with one message. A duration lasts 10 to 310 ms, in steps of\n"
    "10, or 250 to 7750 ms, in steps of 250: others are rounded. Afterwards the pin\n"
    "returns to its earlier level. Devices do not answer writes: with --check the pins are read\n"
    "back until each has its level, and the exit status is 3 if one has not within\n"
    "the time of -W.";

const char* const WAIT_DETAILS =
    "Ends when all pins have their levels, which they may have from the start. Only\n"
    "levels that a device has told count, not those that were only written. With\n"
    "--edge each pin must change to its level during the wait. Without --for there\n"
    "is no limit.";

const char* const ON_DETAILS =
    "The command is run, without a shell, each time the pin changes to the level and\n"
    "has it for the time of --for. It gets PIN, NAME, LEVEL, SINCE and HOST in its\n"
    "environment and the line of watch --changes --json on standard input. Only\n"
    "levels that a device has told count; the one that the pin has at the start is\n"
    "no change. One run at a time: while the command runs, further changes wait.\n"
    "  orvexctl on door=L --for 500ms -- logger \"the door is open\"";

const char* const LIST_DETAILS =
    "RANGE is an address, or two joined by '-'; the default is 0 to 255:255. Prints\n"
    "a line for each address in use: the hosts that answer for it, its five inputs\n"
    "and its five outputs. 0-0xFFFFFF reads all addresses, which takes four minutes.";

const char* const SEND_DETAILS =
    "Takes the lines that any command prints with --json. A message needs \"id\" and\n"
    "\"items\"; it is sent to its \"port\", or to that of -p, and asks for\n"
    "acknowledgement if \"reliable\" is true. A line about one pin becomes a write, or\n"
    "a report if its \"kind\" is report or reply:\n"
    "  {\"pin\":\"1:2:out1\",\"level\":\"L\",\"duration\":500}";

const char* const CONFORM_DETAILS =
    "Plays the daemon to a control server (control), to a remote GPIO server (remote)\n"
    "or to a peer on the bus (peer), and prints for each duty whether it is met.\n"
    "control switches the first output with a source, and leaves it high. With --for,\n"
    "somebody changes an input meanwhile. peer listens on port 2060 for what the peer\n"
    "reads and writes within the time of --for (default: 10 s).\n"
    "  orvexctl conform control 10.0.0.9:93";

}  // namespace

const std::vector<CommandSpec> COMMANDS = {
    {"list",
     "List the addresses in use",
     LIST_DETAILS,
     {{"RANGE", false, false, Completion::Address, "Addresses to read", SetRange}},
     RunList},
    {"get",
     "Read pins and print their levels",
     "Prints a line for each pin: its name and L or H. Repeats reads until all are\n"
     "answered or the time of -W is over.",
     {{"ADDRESS[:PIN]", true, true, Completion::Pin, "A pin, or all pins of an address", AddPins}},
     RunGet},
    {"set",
     "Set pins",
     SET_DETAILS,
     {{"ADDRESS:PIN=LEVEL", true, true, Completion::PinLevel,
       "LEVEL is L, H, low or high; L,500 lasts 500 ms", AddWrite}},
     RunSet},
    {"wait",
     "Wait until pins have levels",
     WAIT_DETAILS,
     {{"ADDRESS:PIN=LEVEL", true, true, Completion::PinLevel, "LEVEL is L or H (low or high)",
       AddCondition}},
     RunWait},
    {"on",
     "Run a command when a pin gets a level",
     ON_DETAILS,
     {{"ADDRESS:PIN=LEVEL", true, false, Completion::PinLevel, "LEVEL is L or H (low or high)",
       AddCondition},
      {"COMMAND", true, true, Completion::None, "The command and its arguments, after --",
       AddCommandWord}},
     RunOn},
    {"watch", "Print messages or changes as they arrive", WATCH_DETAILS, {PINS}, RunWatch},
    {"record",
     "Write what watch --json prints to a file",
     RECORD_DETAILS,
     {{"FILE", true, false, Completion::File, "File to write, - for standard output", SetRecording},
      PINS},
     RunRecord},
    {"send",
     "Send messages from a file, at their intervals",
     SEND_DETAILS,
     {{"FILE", true, false, Completion::File, "File to read, - for standard input", SetFile}},
     RunSend},
    {"channels",
     "Print the channels of the control server",
     "For each output: its source as written, how the daemon reads it, and the states\n"
     "of output and input. Servers send inputs on request and outputs when they\n"
     "change; '-' means not sent. A source that does not mean what it seems to mean\n"
     "is explained. With --inputs, prints the states of inputs of a remote GPIO\n"
     "server, subscribed to as the daemon does: channels -r 10.0.0.9 --inputs 1-8.",
     {},
     RunChannels},
    {"doctor",
     "Find what is wrong with the daemon of this device",
     "Examines process, port, interface, group, connections and queues, queries TQRD\n"
     "and the bus, and prints a line for each finding: the problem, its cause and its\n"
     "remedy. The exit status is 1 if something is wrong. Root sees everything; other\n"
     "users see what could not be examined.",
     {},
     RunDoctor},
    {"conform",
     "Try a server or peer of one's own",
     CONFORM_DETAILS,
     {{"ROLE", true, false, Completion::None, "control, remote or peer", SetRole},
      {"IP[:PORT]", false, false, Completion::None, "The server (default: 127.0.0.1:93)",
       SetServer},
      {"INPUT", false, false, Completion::None, "Input of a remote server (default: 1)", SetInput}},
     RunConform},
    {"top",
     "Show every known pin on the full screen",
     "With an ADDRESS, reads its pins first. Changes are highlighted for a moment and\n"
     "marked '*'. Typing filters by text in name, pin or writer; Esc shows all, Tab\n"
     "changes the order, Space pauses, F10 or Ctrl-C quits. With --json, listens for\n"
     "the time of --for (default: 2 s) and then prints each pin.",
     {{"ADDRESS[:PIN]", false, true, Completion::Pin, "Read these first", AddPins}},
     RunTop},
};

const std::vector<OptionSpec> OPTIONS = {
    {"-i,--interface", "NAME|IP", Completion::Interface, nullptr,
     "Interface of the bus (default: the system's route)",
     [](Options& options, const std::string& text) { options.bus.iface = text; }},
    {"-g,--group", "IP", Completion::None, nullptr, "Multicast group (default: 239.192.255.4)",
     SetGroup},
    {"-p,--ports", "SEND[:LISTEN]", Completion::None, nullptr,
     "Ports to send to and listen on (default: 2060:2055)", SetPorts},
    {"-t,--to", "IP", Completion::None, nullptr, "Send to this host alone, not to the group",
     SetHost},
    {"-W,--wait", "SECONDS", Completion::None, nullptr, "Wait this long for answers (default: 1)",
     SetWait},
    {"-n,--names", "FILE", Completion::Names, nullptr,
     "Names of pins (default: $ORVEX_NAMES or /etc/orvex/names)",
     [](Options& options, const std::string& text) { options.names_file = text; }},
    {"-j,--json", nullptr, Completion::None, nullptr, "Print JSON, one object per line",
     Switch<&Options::json>},
    {"-q,--quiet", nullptr, Completion::None, nullptr, "Print results and errors, but no notes",
     [](Options& options, const std::string&) { options.console.quiet = true; }},
    {"-v,--verbose", nullptr, Completion::None, nullptr,
     "Print progress, sent messages, and all items of messages",
     [](Options& options, const std::string&) { options.console.verbose = true; }},
    {"-r,--reliable", nullptr, Completion::None, "set send",
     "Ask for an acknowledgement; from a group, one is enough", Switch<&Options::reliable>},
    {"-r,--server", "IP[:PORT]", Completion::None, "channels doctor",
     "The control server (default: 127.0.0.1:93)", SetServer},
    {"--plugin", nullptr, Completion::None, "doctor", "Report as a monitoring plugin: in one line",
     Switch<&Options::plugin>},
    {"--metrics", nullptr, Completion::None, "doctor", "Report in the text format of Prometheus",
     Switch<&Options::metrics>},
    {"--tap", nullptr, Completion::None, "conform", "Print as a test does (TAP)",
     Switch<&Options::tap>},
    {"--explain", "SRCA=VALUE", Completion::None, "channels",
     "Ask no server: explain how the daemon reads this",
     [](Options& options, const std::string& text) { options.explain = text; }},
    {"--inputs", "N[-M]", Completion::None, "channels",
     "Print these inputs of a remote GPIO server (1 to 256)", SetInputs},
    {"-k,--check", nullptr, Completion::None, "set",
     "Read the pins back until they have their levels", Switch<&Options::check>},
    {"--any", nullptr, Completion::None, "wait", "One pin is enough", Switch<&Options::any>},
    {"--edge", nullptr, Completion::None, "wait", "Each pin must change to its level",
     Switch<&Options::edge>},
    {"--for", "TIME", Completion::None, "on", "How long the level must last (500ms, 2s, 5m)",
     SetHold},
    {"--once", nullptr, Completion::None, "on", "End after the first run", Switch<&Options::once>},
    {"--limit", "N/s", Completion::None, "on",
     "At most N runs in a second (N/m, N/h; default: 10/s)", SetRunLimit},
    {"--parallel", "N", Completion::None, "on", "Up to N runs at a time", SetParallel},
    {"--timeout", "TIME", Completion::None, "on", "End a run after this time (default: 60s)",
     SetTimeout},
    {"-C,--changes", nullptr, Completion::None, "watch", "Print pins that change, and writes",
     Switch<&Options::changes>},
    {"-F,--format", "FORMAT", Completion::None, "watch", "Print changes in this format (see below)",
     SetFormat},
    {"--heartbeat", "SECONDS", Completion::None, "watch",
     "Print a line at this interval while listening", SetHeartbeat},
    {"-a,--all", nullptr, Completion::None, "watch record",
     "Show the second copy of each message too", Switch<&Options::all>},
    {"-c,--count", "N", Completion::None, "watch record",
     "End after N messages; with pins, after N changes", SetCount},
    {"-f,--for", "SECONDS", Completion::None, "wait watch record send channels conform top",
     "End after this time", SetLimit},
    {"--force", nullptr, Completion::None, "record", "Overwrite the file", Switch<&Options::force>},
    {"--max-size", "SIZE", Completion::None, "record",
     "Put the file aside before it is larger (500K, 100M, 2G)", SetMaxSize},
    {"--keep", "N", Completion::None, "record", "Keep N files that were put aside (default: 9)",
     SetKeep},
    {"--rotated", nullptr, Completion::None, "send",
     "Send the files that record has put aside first, from the oldest on",
     Switch<&Options::rotated>},
    {"--fast", nullptr, Completion::None, "send", "Send without pauses", Switch<&Options::fast>},
    {"--speed", "FACTOR", Completion::None, "send", "Send this many times as fast (default: 1)",
     SetSpeed},
    {"--loop", nullptr, Completion::None, "send", "Start over, a second after the end of the file",
     Switch<&Options::loop>},
};

const std::vector<StatusSpec> STATUSES = {
    {STATUS_DONE, "done"},
    {STATUS_FAILED,
     "not sent or refused; no access to the bus or to a file; doctor: trouble; conform: a duty is "
     "not met"},
    {STATUS_USAGE, "wrong usage"},
    {STATUS_NO_ANSWER, "no answer, no acknowledgement, or not the levels in time"},
};
