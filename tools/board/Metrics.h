// The board's metrics for a monitoring system.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

class Board;
class History;

class Metrics {
public:
    class Writer;

    static constexpr size_t MAX_PINS = 1000;  // pins with their own metrics, by tag
    static constexpr std::array<double, 6> BOUNDS = {0.01, 0.025, 0.05, 0.1, 0.25, 1};  // s

    // All must outlive the metrics.
    Metrics(const Board& board, History& history) : m_board(board), m_history(history) {}

    // An event was stored that many ms after it came from the bus.
    void NoteStored(int64_t delay);

    // In OpenMetrics, or in the older text format, in which counters have other names.
    std::string Write(bool open_metrics) const;

    std::function<size_t()> viewers;
    std::function<uint64_t()> viewers_cut;

private:
    void WriteCounters(Writer& writer) const;
    void WriteGauges(Writer& writer) const;
    void WriteDelays(Writer& writer) const;

    const Board& m_board;
    History& m_history;
    std::array<uint64_t, BOUNDS.size() + 1> m_delays{};
    double m_delay_sum = 0;
};
