// orvex-tsl as it runs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/base/Log.h"
#include "tools/base/Signals.h"
#include "tools/bus/PinFollower.h"
#include "tools/tsl/Config.h"
#include "tools/tsl/Inputs.h"
#include "tools/tsl/Outputs.h"
#include "tools/tsl/Rules.h"

// Lights outputs as switchers say, and tells multiviewers about pins.
class Service {
public:
    // Listens. Throws std::system_error if it can't, BusError if the bus can't be used.
    explicit Service(const TslConfig& config);

    // Serves until SIGINT or SIGTERM, then gives the outputs their on-loss levels. SIGHUP reads the
    // file again; signals must catch it.
    void Run(Signals& signals);

private:
    // Malformed packets of a host, told at most once a minute.
    struct Complaint {
        uint64_t count = 0;
        std::string first;  // of those not told yet
    };

    void Wait(const Signals& signals, TimePoint limit, std::vector<pollfd>& fds) const;
    void Configure(const TslConfig& config);
    void Reload();
    void TakeChange(const PinChange& change);
    void TakeLink(const BusLink::Change& change);
    std::string StatusText() const;
    void CarryOutRules();
    void Write(const Rules::Write& write);
    void Complain(uint32_t host, const std::string& reason, const std::string& bytes);
    void Complain();
    void TellComplaints();

    TslConfig m_config;
    Log m_log;
    const std::function<void(const std::string&)> m_tell;
    PinFollower m_follower;
    Inputs m_inputs;
    Outputs m_outputs;
    Rules m_rules;
    std::map<uint32_t, Complaint> m_complaints;  // by host
    uint64_t m_lost = 0;                         // datagrams, not told yet
    TimePoint m_complain = TimePoint::max();     // when to tell them
    TimePoint m_told{};                          // when they were told last
    std::string m_trouble;                       // with writing, as told
};
