// The router of app/ with all its peers on loopback.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "app/orvex.h"
#include "fuzz/Net.h"

// Time stands still unless the Clock of the tests or usleep() moves it.
class Router {
public:
    static const uint16_t BUS_PORT = 2060;

    // The only instance, since the router has one set of endpoints. Opens those of the bus.
    static Router& Get();

    // Back to the state after start-up, with nothing configured. connected: whether to TQRD.
    void Restart(bool connected);
    // Restores the sending of multicasts after "SET" lines.
    void UseLoopback();
    void AcceptRemotes();
    void ResetRemotes();

    // The number of the channel for each address on the bus. False if channels share one.
    static bool BusChannels(std::map<uint32_t, int>& numbers);
    // Takes reports from the group, checks that each was sent twice, and returns their payloads.
    std::vector<std::string> TakeReports(size_t wanted);

    TcpPeer tqrd{40093};
    TcpPeer remotes[2] = {TcpPeer(93), TcpPeer(94)};
    UdpPeer group{2055};

private:
    Router();
};
