// The router: what the application's files share, and what their tests need.
//
//   orvex.cpp        settings, endpoints, command line, start-up
//   environment.cpp  the settings from environment variables
//   lifesigns.cpp    signs of life for the service manager
//   mainloop.cpp     the select() loop
//   channels.cpp     the channel table and the control lines that change it
//   state.cpp        pin states between the bus, the channel table and TQRD
#pragma once

#include <sys/select.h>
#include <sys/time.h>

#include <cstdint>
#include <string>

#include "app/lifesigns.h"
#include "gpiocli/gpiocli.h"
#include "msg/Message.h"
#include "net/SvcAddress.h"
#include "protocol/numbers.h"
#include "protocol/source.h"
#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "tqr/tqrcli.h"
#include "tqr/trace.h"

const char* const APP_NAME = "orvex";

// ---- Settings. The debug flag is dbg, in tqr/trace.h.

extern std::string tqr_ip;       // address of TQRD, a dotted quad
extern unsigned short tqr_port;  // its TCP port
extern uint32_t gpioip;          // the GPIO multicast group, network byte order
extern uint32_t iface;           // our address for multicast, network byte order; 0 = any interface
extern int iface_changed;        // 1 from a change of iface until the loop has handled it
extern CTQRLimits tqr_limits;    // for TQRD and for remote servers
extern bool resubscribe;         // whether to subscribe again after a reconnection to TQRD
extern char* msgdump;            // in debug mode, a buffer for the text of a message; else null

// ---- Endpoints, constructed before main in this order and destroyed in reverse.

extern CTQRClient local;           // the control connection to TQRD
extern CGPIOClient gpiocli;        // remote GPIO servers; entry n - 1 belongs to channel n
extern CRUdpLayer3Server rudpsrv;  // receives state messages from the bus
extern CRUdpLayer3Client rudpcli;  // sends state messages to the bus

// ---- Channel table. Channel n of control lines is channels[n - 1].

// States have one character per pin and no terminator: 'H', 'L', 'h', 'l', 'x', or NUL if not known
// yet.
struct Channel : ChannelConfig {
    char gpi_state[PIN_COUNT];  // KIND_BUS: from the last "GPI" line
    char gpo_state[PIN_COUNT];  // KIND_BUS: from the last "GPO" line; "HHHHH" after a change
};

extern Channel channels[CHANNEL_COUNT];

// The handlers take the text of a control line from TQRD after its first four characters. Malformed
// lines are ignored without a message.

// "CFG GPO n ... SRCA=source ...": configures channel n. If the configuration differs, updates TQRD
// and the remote connections. Returns 1 if it did, else 0.
int parse_CFG(const char* text);

// "GPO n state": stores the output state of channel n, of KIND_BUS and 1 to 8.
void parse_GPO(const char* text);

// "SET ... NIC_IPADDR=a.b.c.d ...": if the address differs, replaces iface and sets iface_changed.
void parse_SET(const char* text);

// Stores the first five characters of a state text, padded with NULs.
void copy_state(char (&state)[PIN_COUNT], const char* text);

// ---- State messages. On the bus a pin is an item tagged (circuit-group address << 8) | circuit.
// Pin numbers are positions in a state text: 0 to 4 for the output, 8 to 12 for the input.

// The application's messages have room for 16 items and grow by 16.
const unsigned int MSG_SIZE = 16;
const unsigned int MSG_GROW_BY = 16;

// The pin number of a circuit, -1 if there is no such circuit.
int cid2pin(unsigned long circuit);

// Adds the pins of a state text to the message: with offset 0 those of an input, with 8 those of an
// output. 'H' and 'L' become items of value 0 and 1, 'h' and 'l' are skipped, any other character
// ends the text. Returns the number of items added, which is smaller if memory is short.
int iostate2cmsg(CMsg2* msg, unsigned long ach, const char* state, int offset);

// Reports the pins of a state text, as in iostate2cmsg, to the group. Sends nothing without pins.
void send_state_to_kelvo(unsigned long ach, const char* state, int offset);

// Sends a copy of the message twice as a datagram: messages to the group are not acknowledged, so
// the second makes up for a loss of the first. Reports failures on standard output. Returns 1.
int deliver_msg(CMsg2& msg, CRUdpLayer3Client& client, CSvcAddress& dest);

// Carries out a message from the bus: writes become lines for TQRD, a read is answered to the
// group. Skips circuits and addresses that no channel has, and ignores other messages.
void cmsgprocess(CMessage& request);

// "GPI n state", a control line from TQRD as those above: stores the input state of channel n, of
// KIND_BUS, and reports it to the group.
void parse_GPI(const char* text);

// ---- Start-up.

// Opens those of the descriptors 0 to 2 that are closed: otherwise a socket could become the
// standard error stream, and messages lines to a peer. Call it before anything is opened.
void open_standard_streams();

// Applies ORVEX_CONNECT_TIMEOUT, ORVEX_PEER_TIMEOUT and ORVEX_RESUBSCRIBE to the settings and to
// the endpoints. Reports invalid values on standard error and ignores them.
void read_environment();

// Applies the command line to the settings. Ends the process with status 0 after "-help".
void parse_commands(int argc, char** argv);

// The IPv4 address of eth0 in network byte order; 0, after a message, if it has none.
uint32_t get_iface();

// Connects local to TQRD, for as long as the system takes or tqr_limits allow. Returns what
// local.open() returns; there is a connection if local.get_fd() != -1.
int connect_control();

// Requests settings and GPO configuration from TQRD. Does nothing if not connected.
void request_configuration();

// Subscribes to the inputs of all channels of KIND_BUS.
void subscribe_inputs();

// Makes rudpsrv a member of the group gpioip on the interface iface. Reports a failure.
void join_group();

// Everything between the command line and the first turn of the loop: detaches, unless in debug
// mode, and opens the endpoints. program is the invocation name. False: exit with status 1.
bool start(const char* program);

// ---- Main loop.

// Serves all endpoints, turn by turn, and holds the state that outlives a turn.
class CMainLoop {
public:
    // The first sweep of the remote connections is due a SWEEP_PERIOD_S from now.
    CMainLoop();

    // Tells the service manager, if there is one, that the daemon is ready, and from then on that
    // its loop turns: after the end of each turn, and while it waits for TQRD.
    void TellReady();

    // One turn: waits for input, at most a SWEEP_PERIOD_S or a peer_watch_period(), and handles it.
    // If the control connection is down, it first restores it, however long that takes. False,
    // after a message, if select() failed.
    bool Turn();

private:
    void keep_control_connection();
    void begin_read_set();
    bool drop_vanished();
    void watch_remotes();
    int wait_for_input();
    void serve_control();
    void dispatch_control_line(const char* line);
    void follow_interface();
    void serve_bus();
    void serve_remotes();
    void forward_remote(int entry);
    void watch(int fd);
    bool is_readable(int fd) const { return fd != -1 && FD_ISSET(fd, &m_readable); }

    CLifeSigns m_life_signs;
    CMessage m_received;            // the last message from the bus
    timeval m_sweep;                // time of the last sweep of the remote connections
    timeval m_looked;               // time of the last check for vanished peers
    timeval m_now;                  // the time of this turn
    fd_set m_readable;              // before select() what to wait for, then what is readable
    int m_maxfd = -1;               // the highest descriptor in it
    unsigned long m_remotes = 0;    // the remote entries whose sockets are watched
    bool m_config_changed = false;  // a "CFG" line of this turn changed a channel
    char m_msg[LINE_SIZE];          // a line from a remote server for TQRD
};
