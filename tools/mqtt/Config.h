// The configuration file of orvex-mqtt, one setting per line:
//
//     site    studio
//     broker  mqtt.example.org:8883
//     pins    1:2 7:4:out1
//     link    studio:1:2:in1 -> tower:7:4:out1 invert on-loss H 2
//
// orvex-mqtt.conf(5) describes them all.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "tools/base/ConfigFile.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/Names.h"
#include "tools/mqtt/LinkConfig.h"

struct MqttConfig {
    std::string file;
    std::string site;
    std::string host;
    int port = 0;
    bool is_local = false;  // there is no broker: links are within this site
    std::string prefix = "orvex";
    std::string discovery;  // prefix of what is announced to hubs; empty: nothing
    std::string board;      // URL of the board, for hubs; empty: none
    bool standby = false;   // waits while another bridge of the site is active

    bool tls = false;
    std::string ca;  // empty: those that the system trusts
    std::string certificate;
    std::string key;

    std::string user;
    std::string password;

    BusSettings bus;
    Names names;
    std::vector<PinRef> pins;  // to read: those of the file, of its links, and those with names
    std::vector<LinkConfig> links;
    std::string loss_file;  // what to remember about lost links; empty: nothing
    double ask_every = 10;  // seconds
    double expire = 2;      // the default maximum age of a set, in seconds

    // What can't be changed while the bridge runs.
    auto Fixed() const {
        return std::tie(site, host, port, is_local, prefix, standby, tls, ca, certificate, key,
                        user, password, bus.iface, ask_every);
    }

    // Reads and checks a file and what it refers to. Throws ConfigError.
    static MqttConfig Read(const std::string& file);
};
