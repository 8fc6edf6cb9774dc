#include "tools/tsl/Service.h"

#include <algorithm>
#include <csignal>
#include <stdexcept>

#include "tools/base/Notify.h"
#include "tools/bus/BusError.h"
#include "tools/bus/Interface.h"

namespace {

const double COMPLAIN_PERIOD = 60;  // seconds
const size_t LOG_LINES = 100;       // a second
const size_t MAX_COMPLAINTS = 100;  // hosts

BusSettings SettingsOf(const TslConfig& config) {
    BusSettings settings;
    settings.iface = config.interface;
    return settings;
}

FollowPolicy Policy() {
    FollowPolicy policy;
    policy.reads = FollowPolicy::Reads::Wanted;
    policy.every = 2;
    policy.keeps_trying = true;
    return policy;
}

}  // namespace

Service::Service(const TslConfig& config)
    : m_log(LOG_LINES),
      m_tell([this](const std::string& text) { m_log.Tell(text); }),
      m_follower(SettingsOf(config), Policy()),
      m_inputs([this](const std::vector<Display>& displays, uint32_t host,
                      TimePoint time) { m_rules.Take(displays, host, time); },
               [this](uint32_t host, const std::string& reason, const std::string& bytes) {
                   Complain(host, reason, bytes);
               },
               [this](uint64_t count) {
                   m_lost += count;
                   m_rules.Doubt();
                   Complain();
               },
               m_tell),
      m_outputs(m_tell) {
    m_follower.on_change = [this](const PinChange& change) { TakeChange(change); };
    m_follower.on_link = [this](const BusLink::Change& change) { TakeLink(change); };
    m_follower.on_trouble = m_tell;
    m_inputs.Listen(config.listen);
    Configure(config);
    m_follower.Serve();  // tries to open the link
    if (!m_follower.IsUp()) {
        m_tell("the bus can't be used: " + m_follower.Problem());
    }
}

void Service::Configure(const TslConfig& config) {
    m_config = config;
    for (const Rules::Write& write : m_rules.Configure(config.rules)) {
        Write(write);
    }
    m_outputs.Configure(config.send, config.pins);
    for (const TslRule& rule : config.rules) {
        m_follower.Want({rule.tag >> 8, static_cast<uint8_t>(rule.tag & 0xFF)});
    }
    for (const TslPin& pin : config.pins) {
        m_follower.Want({pin.tag >> 8, static_cast<uint8_t>(pin.tag & 0xFF)});
        const PinState* const state = m_follower.States().Find(pin.tag);
        m_outputs.Tell(pin.tag, state != nullptr ? state->level : std::nullopt);
    }
}

void Service::Run(Signals& signals) {
    std::vector<pollfd> fds;
    Notify notify;
    notify.Ready();
    for (;;) {
        notify.Status(StatusText());
        notify.Beat();
        Wait(signals, notify.NextTime(), fds);
        while (const std::optional<int> signal = signals.Take()) {
            if (*signal != SIGHUP) {
                notify.Stopping();
                for (const Rules::Write& write : m_rules.End()) {
                    Write(write);
                }
                return;
            }
            Reload();
        }
        m_inputs.Serve(fds);
        CarryOutRules();
        m_follower.Serve();
        CarryOutRules();
        m_outputs.Serve(fds);
        if (Now() >= m_complain) {
            TellComplaints();
        }
        m_log.Tend();
    }
}

std::string Service::StatusText() const {
    if (!m_follower.Problem().empty()) {
        return "the bus can't be used: " + m_follower.Problem();
    }
    const size_t lost = m_rules.LostCount();
    return lost == 0 ? "all switchers are heard"
                     : std::to_string(lost) + " displays are lost: their switchers send nothing";
}

void Service::Wait(const Signals& signals, TimePoint limit, std::vector<pollfd>& fds) const {
    fds = {{signals.Get(), POLLIN, 0}};
    for (const int fd : m_follower.Descriptors()) {
        fds.push_back({fd, POLLIN, 0});
    }
    m_inputs.AddDescriptors(fds);
    m_outputs.AddDescriptors(fds);
    const TimePoint next = std::min({limit, m_log.NextTime(), m_follower.NextTime(),
                                     m_rules.NextTime(), m_outputs.NextTime(), m_complain});
    poll(fds.data(), fds.size(), MillisecondsUntil(next));
}

void Service::Reload() {
    try {
        const TslConfig config = TslConfig::Read(m_config.file);
        if (config.interface != m_config.interface) {
            m_tell("another interface is used after a restart only");
        }
        m_inputs.Listen(config.listen);
        Configure(config);
        m_tell(config.file + " is used");
    } catch (const std::runtime_error& error) {  // of the file, of its names, or from Listen()
        m_tell(error.what());
        m_tell(m_config.file + " is not used: the configuration stays as it was");
    }
}

void Service::TakeChange(const PinChange& change) {
    m_outputs.Tell(change.tag, change.after);
    if (change.status == PinStatus::Told) {
        m_rules.Told(change.tag, change.after);
    } else if (change.denied) {
        m_rules.Denied(change.tag);
    }
}

// Not each pin is told when the bus goes down: nothing is known then.
void Service::TakeLink(const BusLink::Change& change) {
    m_tell(change.text);
    for (const TslPin& pin : m_config.pins) {
        const PinState* const state = m_follower.States().Find(pin.tag);
        m_outputs.Tell(pin.tag, state != nullptr ? state->level : std::nullopt);
    }
    if (change.up) {
        m_rules.WriteAgain();
    }
}

void Service::CarryOutRules() {
    for (const Rules::Write& write : m_rules.Tend()) {
        Write(write);
    }
    for (const std::string& note : m_rules.Notes()) {
        m_tell(note);
    }
    m_rules.Notes().clear();
}

void Service::Write(const Rules::Write& write) {
    std::string trouble;
    try {
        m_follower.Write(write.tag, WriteValue(write.level, 0));
    } catch (const BusError& error) {
        trouble = error.what();
        m_rules.NotWritten(write.tag);
    }
    if (trouble != m_trouble && !trouble.empty()) {
        m_tell(m_config.names.Label(write.tag) + ": " + trouble);
    }
    m_trouble = trouble;
}

// ---- malformed packets

void Service::Complain(uint32_t host, const std::string& reason, const std::string& bytes) {
    if (m_complaints.count(host) == 0 && m_complaints.size() >= MAX_COMPLAINTS) {
        return;
    }
    Complaint& complaint = m_complaints[host];
    if (complaint.count++ == 0) {
        complaint.first = reason + (bytes.empty() ? "" : ": " + HexOf(bytes));
    }
    Complain();
}

// Collected for a moment, so that a burst is one line.
void Service::Complain() {
    m_complain = std::min(m_complain, std::max(After(1), Later(m_told, COMPLAIN_PERIOD)));
}

void Service::TellComplaints() {
    for (const auto& [host, complaint] : m_complaints) {
        m_tell(HostText(host) + " has sent " + std::to_string(complaint.count) +
               " malformed packets, the first: " + complaint.first);
    }
    if (m_lost > 0) {
        m_tell(std::to_string(m_lost) + " datagrams were lost: they came too fast");
    }
    m_lost = 0;
    m_complaints.clear();
    m_told = Now();
    m_complain = TimePoint::max();
}
