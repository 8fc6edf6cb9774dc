// The minimum that links a contact to a far lamp through a broker, to compare the bridge with: it
// keeps no states and handles no links and outages. Started by bench/mqtt.sh at each site:
//   orvex-mqtt-bare contact   publishes the payload for each report
//   orvex-mqtt-bare lamp      writes to the bus for each payload
#include <arpa/inet.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/mqtt.h"
#include "tools/base/RunMain.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/Interface.h"
#include "tools/bus/PinName.h"

namespace {

const char* const TOPIC = "bench/contact";

int Listen() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(REPORT_PORT);
    ip_mreq group = {};
    group.imr_multiaddr.s_addr = htonl(DEFAULT_GROUP);
    group.imr_interface.s_addr = FindInterface("eth0", DEFAULT_GROUP).address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0) {
        throw std::runtime_error("no bus");
    }
    return fd;
}

void Contact(mosquitto* client) {
    const int bus = Listen();
    char datagram[1500];
    std::string payload = PAYLOAD;
    for (bool low = true; recv(bus, datagram, sizeof datagram, 0) > 0; low = !low) {
        payload[LEVEL_AT] = low ? 'L' : 'H';
        mosquitto_publish(client, nullptr, TOPIC, static_cast<int>(payload.size()), payload.data(),
                          0, true);
    }
}

void Lamp(mosquitto* client) {
    static BusLink bus([] {
        BusSettings settings;
        settings.iface = "eth0";
        return settings;
    }());
    mosquitto_message_callback_set(client, [](mosquitto*, void*, const mosquitto_message* message) {
        const bool low = static_cast<const char*>(message->payload)[LEVEL_AT] == 'L';
        CMessage write(16, 16);
        write.SetId(ID_WRITE);
        write.SetByte(ParsePin("7:4:out1"), low ? 1 : 0);
        bus.Send(write, BUS_PORT, false);
    });
    mosquitto_subscribe(client, nullptr, TOPIC, 0);
    mosquitto_loop_forever(client, -1, 1);
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("orvex-mqtt-bare", [&] {
        mosquitto_lib_init();
        mosquitto* const client = ConnectToBroker();
        argc > 1 && strcmp(argv[1], "contact") == 0 ? Contact(client) : Lamp(client);
        return 0;
    });
}
