// Metrics as a monitoring system reads them: in the text format of Prometheus, or in OpenMetrics,
// in which counters and infos have other headings.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>

#include "tools/base/Time.h"

class Histogram;

class MetricsText {
public:
    // One with an empty value is left out. Values are UTF-8.
    using Labels = std::initializer_list<std::pair<const char*, std::string>>;

    explicit MetricsText(bool is_open_metrics) : m_is_open(is_open_metrics) {}

    // Whether a request with this Accept header wants OpenMetrics.
    static bool WantsOpen(const std::string& accept);
    // For the header Content-Type.
    const char* Type() const;

    // Begins a metric. Its name is without the endings that its rows get (_total, _info, _bucket).
    void Counter(const std::string& name, const char* help);
    void Gauge(const std::string& name, const char* help);
    void Info(const std::string& name, const char* help);
    void Distribution(const std::string& name, const char* help);

    // A row of the metric that was begun last. The value of an info is 1.
    void Row(double value, Labels labels = {});
    void Row(const Histogram& histogram, Labels labels = {});

    // A metric with one row.
    void Counter(const std::string& name, const char* help, double value);
    void Gauge(const std::string& name, const char* help, double value);

    // All of it, to be asked for once, at the end.
    std::string Text() const { return m_is_open ? m_text + "# EOF\n" : m_text; }

private:
    void Begin(const std::string& family, const char* type, const char* help);
    void Write(const char* ending, const std::string& labels, double value);

    const bool m_is_open;
    std::string m_name;  // of the rows
    std::string m_text;
};

// What monitoring systems expect of every program: process_cpu_seconds_total and so on.
class ProcessMetrics {
public:
    void Write(MetricsText& text);

private:
    const TimePoint m_began = Now();
    double m_started = 0;  // seconds since 1970, as it was told
};
