#include "tools/board/Metrics.h"

#include <cstdio>

#include "tools/board/Board.h"
#include "tools/board/History.h"
#include "tools/bus/Interface.h"
#include "tools/bus/PinName.h"

namespace {

std::string NumberText(double value) {
    char text[40];
    snprintf(text, sizeof text, "%.15g", value);
    return text;
}

std::string Quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\\\"" : c == '\\' ? "\\\\" : c == '\n' ? "\\n" : std::string(1, c);
    }
    return quoted + "\"";
}

}  // namespace

class Metrics::Writer {
public:
    explicit Writer(bool open_metrics) : m_open(open_metrics) {}

    void Counter(const std::string& name, const char* help) {
        Head(m_open ? name : name + "_total", "counter", help);
        m_name = name + "_total";
    }
    void Gauge(const std::string& name, const char* help) { Head(name, "gauge", help); }
    void Head(const std::string& name, const char* type, const char* help) {
        m_text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
        m_name = name;
    }
    void Row(const std::string& labels, double value, const char* suffix = "") {
        m_text += m_name + suffix + (labels.empty() ? "" : "{" + labels + "}") + " " +
                  NumberText(value) + "\n";
    }
    std::string Text() const { return m_open ? m_text + "# EOF\n" : m_text; }

private:
    const bool m_open;
    std::string m_name;
    std::string m_text;
};

namespace {

using Writer = Metrics::Writer;

void WritePins(const Board& board, Writer& writer) {
    const auto each = [&](const auto& write) {
        size_t count = 0;
        board.Pins().ForEach([&](uint32_t tag, const PinState& state) {
            if (count++ < Metrics::MAX_PINS) {
                const std::string name = board.GetNames().NameOf(tag);
                write("pin=" + Quote(PinText(tag)) + (name.empty() ? "" : ",name=" + Quote(name)),
                      tag, state);
            }
        });
    };
    writer.Counter("orvex_board_pin_changes", "Changes of a pin, of the first 1000 pins.");
    each([&](const std::string& labels, uint32_t tag, const PinState&) {
        writer.Row(labels, static_cast<double>(board.ChangesOf(tag)));
    });
    writer.Gauge("orvex_board_pin_low",
                 "1: the pin was told low (L), 0: high (H); none: not known.");
    each([&](const std::string& labels, uint32_t, const PinState& state) {
        if (state.status == PinStatus::Told && state.level) {
            writer.Row(labels, *state.level == Level::Low ? 1 : 0);
        }
    });
}

void WriteMessages(const Board& board, Writer& writer) {
    writer.Counter("orvex_board_messages", "Messages heard on the bus.");
    for (const auto& [key, count] : board.GetCounts().messages) {
        writer.Row("kind=" + Quote(key.first) + ",host=" + Quote(key.second),
                   static_cast<double>(count));
    }
}

void WriteDevices(const Board& board, Writer& writer) {
    writer.Gauge("orvex_board_device_missing", "1: the device does not answer.");
    for (const auto& [host, device] : board.Follower().Devices()) {
        writer.Row("host=" + Quote(HostText(host)), device.is_silent ? 1 : 0);
    }
}

}  // namespace

void Metrics::NoteStored(int64_t delay) {
    const double seconds = static_cast<double>(delay) / 1000;
    size_t bucket = 0;
    while (bucket < BOUNDS.size() && seconds > BOUNDS[bucket]) {
        ++bucket;
    }
    ++m_delays[bucket];
    m_delay_sum += seconds;
}

void Metrics::WriteCounters(Writer& writer) const {
    const Board::Counts& counts = m_board.GetCounts();
    const auto counter = [&](const char* name, const char* help, uint64_t value) {
        writer.Counter(std::string("orvex_board_") + name, help);
        writer.Row("", static_cast<double>(value));
    };
    counter("repeats", "Messages that were second copies.", counts.repeats);
    counter("malformed", "Datagrams that were no message.", counts.malformed);
    counter("changes", "Changes of pins.", counts.changes);
    counter("questions", "Questions asked on the bus.", m_board.Follower().Reads());
    counter("sets", "Writes that viewers asked for.", counts.sets);
    counter("refusals", "Writes that were refused.", counts.refusals);
    counter("overflow", "Pins and devices beyond what is kept.", m_board.Follower().PassedOver());
    counter("viewers_cut", "Viewers that were too slow.", viewers_cut ? viewers_cut() : 0);
    counter("history_lost", "Events that could not be stored.",
            static_cast<uint64_t>(m_history.Lost()));
}

void Metrics::WriteGauges(Writer& writer) const {
    const auto gauge = [&](const char* name, const char* help, double value) {
        writer.Gauge(std::string("orvex_board_") + name, help);
        writer.Row("", value);
    };
    gauge("link_up", "1: the bus is heard.", m_board.LinkProblem().empty() ? 1 : 0);
    gauge("healthy", "1: what /healthz says is good.", m_board.Complaints().empty() ? 1 : 0);
    gauge("viewers", "Streams of events that are open.",
          static_cast<double>(viewers ? viewers() : 0));
    gauge("pins", "Pins known.", static_cast<double>(m_board.Pins().Count()));
    gauge("history_ok", "1: the history is being written.", m_history.Problem().empty() ? 1 : 0);
    gauge("history_rows", "Events in the history.", static_cast<double>(m_history.Rows()));
    if (const std::optional<TimePoint> heard = m_board.GetCounts().last_heard) {
        gauge("last_message_age_seconds", "Time since the last message.",
              std::chrono::duration<double>(Now() - *heard).count());
    }
}

void Metrics::WriteDelays(Writer& writer) const {
    writer.Head("orvex_board_store_delay_seconds", "histogram",
                "Time from the bus to the history.");
    uint64_t sum = 0;
    for (size_t i = 0; i < m_delays.size(); ++i) {
        sum += m_delays[i];
        const std::string bound = i < BOUNDS.size() ? NumberText(BOUNDS[i]) : "+Inf";
        writer.Row("le=" + Quote(i + 1 < m_delays.size() && bound == "1" ? "1.0" : bound),
                   static_cast<double>(sum), "_bucket");
    }
    writer.Row("", m_delay_sum, "_sum");
    writer.Row("", static_cast<double>(sum), "_count");
}

std::string Metrics::Write(bool open_metrics) const {
    Writer writer(open_metrics);
    WriteMessages(m_board, writer);
    WriteCounters(writer);
    WriteGauges(writer);
    WriteDevices(m_board, writer);
    WriteDelays(writer);
    WritePins(m_board, writer);
    return writer.Text();
}
