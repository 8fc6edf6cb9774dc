// The board's metrics for a monitoring system.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/base/Histogram.h"
#include "tools/base/MetricsText.h"

class Board;
class History;

class Metrics {
public:
    // Pins with metrics of their own: those with a name, then others, by tag. What the board keeps
    // bounds all other series.
    static constexpr size_t MAX_PINS = 1000;

    // All must outlive the metrics.
    Metrics(const Board& board, History& history) : m_board(board), m_history(history) {}

    // An event was stored that many ms after it came from the bus.
    void NoteStored(int64_t delay) { m_delays.Add(static_cast<double>(delay) / 1000); }

    void Write(MetricsText& text);

    std::function<size_t()> viewers;
    std::function<uint64_t()> viewers_cut;

private:
    std::vector<uint32_t> Pins() const;
    void WriteBus(MetricsText& text) const;
    void WriteDevices(MetricsText& text) const;
    void WriteViewers(MetricsText& text) const;
    void WriteHistory(MetricsText& text) const;
    void WritePins(MetricsText& text) const;

    const Board& m_board;
    History& m_history;
    Histogram m_delays;
    ProcessMetrics m_process;
};
