// Measures the delay from a contact at one site to the lamp at another, whatever programs carry it,
// and in turn that of the same payload between two bare clients of the same broker. Started by
// bench/mqtt.sh:
//   orvex-mqtt-path NAME RUNS
#include <fcntl.h>
#include <mosquitto.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/mqtt.h"
#include "tools/base/RunMain.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/PinName.h"

namespace {

const char* const TOPIC = "bench/bare";

// Sockets belong to the host on which they were created.
void GoTo(const std::string& host) {
    const int fd = open(("/run/netns/" + host).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
        throw std::runtime_error("no host " + host);
    }
    close(fd);
}

mosquitto* Connect(const char* host) {
    GoTo(host);
    return ConnectToBroker();
}

double Microseconds(TimePoint since) {
    return std::chrono::duration<double, std::micro>(Now() - since).count();
}

bool has_come = false;

double Bare(mosquitto* from, mosquitto* to) {
    has_come = false;
    const TimePoint start = Now();
    mosquitto_publish(from, nullptr, TOPIC, static_cast<int>(PAYLOAD.size()), PAYLOAD.data(), 0,
                      true);
    while (!has_come && Microseconds(start) < 2e6) {
        mosquitto_loop(to, 100, 1);
    }
    return Microseconds(start);
}

double Linked(BusLink& contact, BusLink& lamp, bool low) {
    CMessage report(16, 16);
    report.SetId(ID_REPORT);
    report.SetByte(ParsePin("1:2:in1"), low ? 1 : 0);
    const TimePoint start = Now();
    contact.Send(report, REPORT_PORT, false);
    Traffic traffic;
    const TimePoint end = After(2);
    while (lamp.Wait(traffic, end) == BusLink::Event::Heard) {
        const CMsg2::Node* const item =
            FindItem(traffic.message, ParsePin("7:4:out1"), CMsg2::ITEM_BYTE);
        if (traffic.GetKind() == Kind::Write && item != nullptr) {
            break;
        }
    }
    return Microseconds(start);
}

void Print(const char* name, std::vector<double> times) {
    std::sort(times.begin(), times.end());
    printf("%-22s median %6.0f us, 99 of 100 within %6.0f us\n", name, times[times.size() / 2],
           times[times.size() * 99 / 100]);
}

int Main(const char* name, int runs) {
    mosquitto_lib_init();
    mosquitto* const from = Connect("studio");
    BusSettings bus;
    bus.iface = "eth0";
    BusLink contact(bus);
    mosquitto* const to = Connect("tower");
    BusLink lamp(bus);
    lamp.Listen(BusLink::Hear::ReportsAndRequests);
    mosquitto_message_callback_set(
        to, [](mosquitto*, void*, const mosquitto_message*) { has_come = true; });
    mosquitto_subscribe(to, nullptr, TOPIC, 0);
    for (const TimePoint end = After(0.5); Now() < end;) {
        mosquitto_loop(from, 10, 1);
        mosquitto_loop(to, 10, 1);
    }
    std::vector<double> bare;
    std::vector<double> linked;
    for (int i = 0; i < runs; ++i) {
        bare.push_back(Bare(from, to));
        linked.push_back(Linked(contact, lamp, i % 2 == 0));
        mosquitto_loop(from, 0, 1);
        usleep(5000);
    }
    Print("bare clients", bare);
    Print(name, linked);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("orvex-mqtt-path", [&] {
        return Main(argc > 1 ? argv[1] : "", argc > 2 ? std::max(atoi(argv[2]), 1) : 1000);
    });
}
