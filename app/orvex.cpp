// Settings, endpoints, command line and start-up.

#include "app/orvex.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "app/pidfile.h"
#include "msg/cmsgdump.h"
#include "tqr/tqr_util.h"
#include "tqr/trace.h"

std::string tqr_ip = "127.0.0.1";
unsigned short tqr_port = LINE_PORT;
uint32_t gpioip = htonl(DEFAULT_GROUP);
uint32_t iface = 0;
int iface_changed = 0;
char* msgdump = nullptr;

CTQRClient local;
CGPIOClient gpiocli(CHANNEL_COUNT);
CRUdpLayer3Server rudpsrv;
CRUdpLayer3Client rudpcli(0, 1000);

namespace {

// "ip", "ip:port" or "port". A port that is 0 or no number changes nothing.
void set_control_address(const char* value) {
    const char* port = value;
    const char* colon = strchr(value, ':');
    if (colon != nullptr) {
        tqr_ip.assign(value, colon);
        port = colon + 1;
    } else if (strchr(value, '.') != nullptr) {
        tqr_ip = value;
        return;
    }
    const unsigned long number = tqr_strtoul(port, nullptr, 0);
    if (number != 0) {
        tqr_port = static_cast<unsigned short>(number);
    }
}

void print_usage() {
    printf(
        "%s <options>\n"
        "  -r ip[:port] or port - tqr server (default: %s:%d)\n"
        "  -debug               - enable debug information\n"
        "  -help                - this usage info\n"
        "  -gpioip              - GPIO mcast addr (default 239.192.255.4)\n",
        APP_NAME, tqr_ip.c_str(), tqr_port);
}

bool open_bus() {
    if (!rudpsrv.Open(BUS_PORT, nullptr, nullptr, nullptr)) {
        fprintf(stderr, "%s server at port %d open failed\n", APP_NAME, BUS_PORT);
        return false;
    }
    if (dbg != 0) {
        printf("%s server at port %d opened on IF_ANY\n", APP_NAME, BUS_PORT);
    }
    join_group();
    if (!rudpcli.Open(nullptr, nullptr)) {
        fprintf(stderr, "%s client open failed\n", APP_NAME);
        return false;
    }
    return true;
}

}  // namespace

void open_standard_streams() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd >= 0) {
        close(fd);
    }
}

void parse_commands(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const bool has_value = i + 1 < argc;
        if (strcmp(argv[i], "-r") == 0 && has_value) {
            set_control_address(argv[++i]);
        } else if (strcmp(argv[i], "-gpioip") == 0 && has_value) {
            gpioip = inet_addr(argv[++i]);
        } else if (strcmp(argv[i], "-debug") == 0) {
            dbg = 1;
        } else if (strcmp(argv[i], "-help") == 0) {
            print_usage();
            exit(0);
        }
    }
}

uint32_t get_iface() {
    ifreq request = {};
    strcpy(request.ifr_name, "eth0");
    request.ifr_addr.sa_family = AF_INET;
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        fprintf(stderr, "get_iface: socket() failed\n");
        return 0;
    }
    const int result = ioctl(sock, SIOCGIFADDR, &request);
    const int err = errno;
    close(sock);
    if (result < 0) {
        printf("ioctl(SIOCGIFADDR) request failed err=%X\n", static_cast<unsigned int>(err));
        return 0;
    }
    sockaddr_in address;
    memcpy(&address, &request.ifr_addr, sizeof address);
    return address.sin_addr.s_addr;
}

int connect_control() {
    return local.open(tqr_ip.c_str(), static_cast<short>(tqr_port), LINE_SIZE);
}

void request_configuration() {
    local.send("SET\nCFG GPO\n");
}

void join_group() {
    const DottedQuad group(gpioip);
    if (!rudpsrv.JoinMcastGroup(gpioip, iface)) {
        fprintf(stderr, "%s S join %s failed err=%d\n", APP_NAME, group.text, errno);
    } else if (dbg != 0) {
        printf("%s S join %s on %s\n", APP_NAME, group.text, DottedQuad(iface).text);
    }
}

bool start(const char* program) {
    if (dbg != 0) {
        setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // so that the trace is seen at once
        msgdump = new (std::nothrow) char[MSG_TEXT_SIZE];
    }
    signal(SIGPIPE, SIG_IGN);
    if (dbg == 0 && daemon(0, 0) != 0) {
        return false;
    }
    create_pid_file(program);
    iface = get_iface();
    for (Channel& channel : channels) {
        channel.proto = KIND_NONE;
    }
    if (connect_control() == -1) {
        fprintf(stderr, "Failed to connect to %s:%d\n", tqr_ip.c_str(), tqr_port);
    }
    if (!open_bus()) {
        return false;
    }
    request_configuration();
    return true;
}
