#include "tools/board/Metrics.h"

#include <algorithm>

#include "tools/board/Board.h"
#include "tools/board/History.h"
#include "tools/bus/Interface.h"
#include "tools/bus/PinName.h"

namespace {

double Number(uint64_t count) {
    return static_cast<double>(count);
}

}  // namespace

void Metrics::Write(MetricsText& text) {
    text.Info("orvex_board_build", "The version of the program.");
    text.Row(1, {{"version", ORVEX_VERSION}});
    text.Gauge("orvex_board_healthy", "1: what /healthz says is good.",
               m_board.Complaints().empty() ? 1 : 0);
    WriteBus(text);
    WriteDevices(text);
    WriteViewers(text);
    WriteHistory(text);
    WritePins(text);
    m_process.Write(text);
}

void Metrics::WriteBus(MetricsText& text) const {
    const Board::Counts& counts = m_board.GetCounts();
    text.Gauge("orvex_board_link_up", "1: the bus is heard.", m_board.LinkProblem().empty());
    if (m_board.Control().IsFollowed()) {
        text.Gauge("orvex_board_control_up", "1: the control server is heard.",
                   m_board.Control().Problem().empty());
    }
    text.Counter("orvex_board_messages", "Messages heard on the bus.");
    for (const auto& [key, count] : counts.messages) {
        text.Row(Number(count), {{"kind", key.first}, {"host", key.second}});
    }
    text.Counter("orvex_board_repeats", "Messages that were second copies.",
                 Number(counts.repeats));
    text.Counter("orvex_board_malformed", "Datagrams that were no message.",
                 Number(counts.malformed));
    if (counts.last_heard > 0) {
        text.Gauge("orvex_board_last_message_timestamp_seconds",
                   "When the last message was heard, since 1970.", counts.last_heard);
    }
    text.Counter("orvex_board_questions", "Questions asked on the bus.",
                 Number(m_board.Follower().Reads()));
    text.Counter("orvex_board_overflow", "Pins and devices beyond what is kept.",
                 Number(m_board.Follower().PassedOver()));
}

void Metrics::WriteDevices(MetricsText& text) const {
    const auto each = [this](const auto& write) {
        for (const auto& [host, device] : m_board.Follower().Devices()) {
            write(HostText(host), device);
        }
    };
    using Device = PinFollower::Device;
    text.Gauge("orvex_board_device_missing", "1: the device does not answer.");
    each([&](const std::string& host, const Device& device) {
        text.Row(device.is_silent, {{"host", host}});
    });
    text.Gauge("orvex_board_device_last_message_timestamp_seconds",
               "When the device told pins last, since 1970.");
    each([&](const std::string& host, const Device& device) {
        text.Row(device.last, {{"host", host}});
    });
    text.Counter("orvex_board_device_answers", "Reads that the device answered.");
    each([&](const std::string& host, const Device& device) {
        text.Row(Number(device.answers), {{"host", host}});
    });
    text.Counter("orvex_board_device_missed", "Reads that the device did not answer.");
    each([&](const std::string& host, const Device& device) {
        text.Row(Number(device.missed), {{"host", host}});
    });
    text.Distribution("orvex_board_device_answer_seconds", "Time until the device answered.");
    each([&](const std::string& host, const Device& device) {
        if (device.answers > 0) {
            text.Row(device.answer_times, {{"host", host}});
        }
    });
    text.Gauge("orvex_board_shared_addresses", "Addresses for which several devices answer.",
               Number(m_board.Follower().Shared().size()));
}

void Metrics::WriteViewers(MetricsText& text) const {
    const Board::Counts& counts = m_board.GetCounts();
    text.Gauge("orvex_board_viewers", "Streams of events that are open.",
               Number(viewers ? viewers() : 0));
    text.Counter("orvex_board_viewers_cut", "Viewers that were too slow.",
                 Number(viewers_cut ? viewers_cut() : 0));
    text.Counter("orvex_board_sets", "Writes that viewers asked for.", Number(counts.sets));
    text.Counter("orvex_board_refusals", "Writes that were refused.", Number(counts.refusals));
}

void Metrics::WriteHistory(MetricsText& text) const {
    text.Gauge("orvex_board_history_ok", "1: the history is being written.",
               m_history.Problem().empty());
    text.Gauge("orvex_board_history_rows", "Events in the history.",
               static_cast<double>(m_history.Rows()));
    text.Counter("orvex_board_history_lost", "Events that could not be stored.",
                 static_cast<double>(m_history.Lost()));
    text.Distribution("orvex_board_store_delay_seconds", "Time from the bus to the history.");
    text.Row(m_delays);
}

// In the order of their tags, so that two scrapes have the same.
std::vector<uint32_t> Metrics::Pins() const {
    std::vector<uint32_t> named;
    std::vector<uint32_t> others;
    m_board.Pins().ForEach([&](uint32_t tag, const PinState&) {
        (m_board.GetNames().NameOf(tag).empty() ? others : named).push_back(tag);
    });
    named.insert(named.end(), others.begin(), others.end());
    named.resize(std::min(named.size(), MAX_PINS));
    std::sort(named.begin(), named.end());
    return named;
}

// The names of a pin are in a series of their own, so that all others survive when they change.
void Metrics::WritePins(MetricsText& text) const {
    const Names& names = m_board.GetNames();
    const std::vector<uint32_t> pins = Pins();
    text.Gauge("orvex_board_pins", "Pins known.", Number(m_board.Pins().Count()));
    text.Counter("orvex_board_changes", "Changes of pins.", Number(m_board.GetCounts().changes));
    text.Info("orvex_board_pin", "The names of a pin.");
    for (const uint32_t tag : pins) {
        text.Row(1, {{"pin", PinText(tag)},
                     {"name", names.NameOf(tag)},
                     {"title", names.TextOf(tag)},
                     {"group", names.GroupOf(tag)}});
    }
    text.Counter("orvex_board_pin_changes", "Changes of a pin.");
    for (const uint32_t tag : pins) {
        text.Row(Number(m_board.ChangesOf(tag)), {{"pin", PinText(tag)}});
    }
    text.Gauge("orvex_board_pin_low", "1: the pin was told low (L), 0: high (H); none: not known.");
    for (const uint32_t tag : pins) {
        const PinState* const state = m_board.Pins().Find(tag);
        if (state != nullptr && state->status == PinStatus::Told && state->level) {
            text.Row(*state->level == Level::Low, {{"pin", PinText(tag)}});
        }
    }
}
