#include "tools/mqtt/Metrics.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "tools/base/MetricsText.h"
#include "tools/base/ReplaceFile.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Links.h"
#include "tools/mqtt/PinBook.h"
#include "tools/mqtt/Sets.h"

namespace {

const double WRITE_EVERY = 5;  // seconds
const mode_t FOR_ALL = 0644;

}  // namespace

Metrics::Metrics(std::string file, const Broker& broker, PinBook& pins, const Sets& sets,
                 const Links& links)
    : m_file(std::move(file)),
      m_broker(broker),
      m_pins(pins),
      m_sets(sets),
      m_links(links),
      m_next(m_file.empty() ? TimePoint::max() : Now()) {}

Metrics::~Metrics() {
    if (!m_file.empty()) {
        unlink(m_file.c_str());
    }
}

std::string Metrics::Tend(bool is_online, bool stands_by) {
    if (Now() < m_next) {
        return {};
    }
    m_next = After(WRITE_EVERY);
    std::string failure = ReplaceFile(m_file, Text(is_online, stands_by), Lasts::Briefly, FOR_ALL);
    const bool is_new = std::exchange(m_failure, failure) != failure;
    return is_new ? failure : std::string();
}

// Not those of the process, whose names node_exporter uses for itself.
std::string Metrics::Text(bool is_online, bool stands_by) const {
    MetricsText text(false);
    const auto count = [](auto number) { return static_cast<double>(number); };
    text.Info("orvex_mqtt_build", "The version.");
    text.Row(1, {{"version", ORVEX_VERSION}});
    text.Gauge("orvex_mqtt_start_time_seconds", "When the bridge started, since 1970.", m_started);
    text.Gauge("orvex_mqtt_connected", "1: there is a connection to the broker.",
               m_broker.Connection() != 0 ? 1 : 0);
    text.Gauge("orvex_mqtt_online", "1: the site is online.", is_online ? 1 : 0);
    text.Gauge("orvex_mqtt_standing_by", "1: another bridge is active.", stands_by ? 1 : 0);
    text.Counter("orvex_mqtt_reconnections", "Connections to the broker but the first.",
                 count(std::max<uint64_t>(m_broker.Connections(), 1) - 1));
    text.Counter("orvex_mqtt_publishes", "Messages published.", count(m_broker.Published()));
    text.Counter("orvex_mqtt_sets", "Sets by result.");
    for (const auto& [result, number] : m_sets.Results()) {
        text.Row(count(number), {{"result", result}});
    }
    text.Gauge("orvex_mqtt_links", "Links to outputs of this site by state.");
    for (const auto& [state, number] : m_links.CountByState()) {
        text.Row(count(number), {{"state", state}});
    }
    text.Counter("orvex_mqtt_events_dropped", "Events that the broker was too slow for.",
                 count(m_pins.Dropped()));
    text.Counter("orvex_mqtt_lost_datagrams", "Datagrams of the bus that were not taken in time.",
                 count(m_pins.Follower().Lost()));
    return text.Text();
}
