#include "fuzz/Router.h"

#include <netinet/in.h>

#include "fuzz/Check.h"
#include "msg/cmsgdump.h"
#include "tqr/trace.h"

Router& Router::Get() {
    static Router router;
    return router;
}

Router::Router() {
    static char dump[MSG_TEXT_SIZE];
    msgdump = dump;
    tqr_port = tqrd.Port();
    iface = htonl(INADDR_LOOPBACK);
    CHECK(rudpsrv.Open(BUS_PORT, nullptr, nullptr, nullptr));
    CHECK(rudpcli.Open(nullptr, nullptr));
    join_group();
}

void Router::Restart(bool connected) {
    dbg = 0;
    tqrd.Reset();
    ResetRemotes();
    local.close();
    for (int i = 0; i < CHANNEL_COUNT; ++i) {
        gpiocli.close(static_cast<unsigned long>(i));
        channels[i] = {};
    }
    UseLoopback();
    Clock::Advance(11, 0);  // senders are forgotten
    CMessage leftover(MSG_SIZE, MSG_GROW_BY);
    while (is_readable(rudpsrv.GetSocket())) {
        rudpsrv.WaitForMsg(&leftover, 0);
    }
    group.Take();
    if (connected) {
        connect_control();
        tqrd.Accept(local.get_fd());
    }
}

void Router::UseLoopback() {
    iface = htonl(INADDR_LOOPBACK);
    iface_changed = 0;
    CHECK(rudpcli.SetMcastInterface(iface));
}

void Router::AcceptRemotes() {
    for (TcpPeer& remote : remotes) {
        remote.AcceptAll();
    }
}

void Router::ResetRemotes() {
    for (TcpPeer& remote : remotes) {
        remote.Reset();
    }
}

bool Router::BusChannels(std::map<uint32_t, int>& numbers) {
    bool distinct = true;
    for (int i = 0; i < CHANNEL_COUNT; ++i) {
        if (channels[i].proto == KIND_BUS) {
            distinct = numbers.emplace(channels[i].ach, i + 1).second && distinct;
        }
    }
    return distinct;
}

std::vector<std::string> Router::TakeReports(size_t wanted) {
    const std::vector<std::string> datagrams = group.Take(2 * wanted);
    std::vector<std::string> reports;
    CHECK(datagrams.size() % 2 == 0);
    for (size_t i = 0; i < datagrams.size(); i += 2) {
        for (const std::string& datagram : {datagrams[i], datagrams[i + 1]}) {
            CHECK(datagram.compare(0, 4, std::string("\3\0\2\7", 4)) == 0);
            CHECK(datagram.compare(8, 8, std::string(8, '\0')) == 0);
        }
        CHECK(datagrams[i].substr(4, 4) != datagrams[i + 1].substr(4, 4));
        CHECK(datagrams[i].substr(8) == datagrams[i + 1].substr(8));
        reports.push_back(datagrams[i].substr(16));
    }
    return reports;
}
