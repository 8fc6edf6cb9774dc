#include "tools/base/MetricsText.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/base/Histogram.h"

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

// As they stand between the brackets.
std::string LabelText(MetricsText::Labels labels) {
    std::string text;
    for (const auto& [name, value] : labels) {
        if (!value.empty()) {
            text += (text.empty() ? "" : ",") + std::string(name) + "=" + Quote(value);
        }
    }
    return text;
}

// The end of a range as a label: always with a point, so that both formats have the same series.
std::string BoundText(size_t range) {
    if (range == Histogram::BOUNDS.size()) {
        return "+Inf";
    }
    const std::string text = NumberText(Histogram::BOUNDS[range]);
    return text.find('.') == std::string::npos ? text + ".0" : text;
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// The folder is open while it is read, and does not count itself.
double CountDescriptors() {
    double count = -1;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc/self/fd", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        ++count;
    }
    return count;
}

}  // namespace

bool MetricsText::WantsOpen(const std::string& accept) {
    return accept.find("application/openmetrics-text") != std::string::npos;
}

const char* MetricsText::Type() const {
    return m_is_open ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                     : "text/plain; version=0.0.4; charset=utf-8";
}

void MetricsText::Begin(const std::string& family, const char* type, const char* help) {
    m_text += "# HELP " + family + " " + help + "\n# TYPE " + family + " " + type + "\n";
    m_name = family;
}

void MetricsText::Counter(const std::string& name, const char* help) {
    Begin(m_is_open ? name : name + "_total", "counter", help);
    m_name = name + "_total";
}

void MetricsText::Gauge(const std::string& name, const char* help) {
    Begin(name, "gauge", help);
}

void MetricsText::Info(const std::string& name, const char* help) {
    Begin(m_is_open ? name : name + "_info", m_is_open ? "info" : "gauge", help);
    m_name = name + "_info";
}

void MetricsText::Distribution(const std::string& name, const char* help) {
    Begin(name, "histogram", help);
}

void MetricsText::Write(const char* ending, const std::string& labels, double value) {
    m_text += m_name + ending + (labels.empty() ? "" : "{" + labels + "}") + " " +
              NumberText(value) + "\n";
}

void MetricsText::Row(double value, Labels labels) {
    Write("", LabelText(labels), value);
}

void MetricsText::Row(const Histogram& histogram, Labels labels) {
    const std::string text = LabelText(labels);
    uint64_t count = 0;
    for (size_t range = 0; range < histogram.Counts().size(); ++range) {
        count += histogram.Counts()[range];
        Write("_bucket", text + (text.empty() ? "" : ",") + "le=" + Quote(BoundText(range)),
              static_cast<double>(count));
    }
    Write("_sum", text, histogram.Sum());
    Write("_count", text, static_cast<double>(count));
}

void MetricsText::Counter(const std::string& name, const char* help, double value) {
    Counter(name, help);
    Row(value);
}

void MetricsText::Gauge(const std::string& name, const char* help, double value) {
    Gauge(name, help);
    Row(value);
}

void ProcessMetrics::Write(MetricsText& text) {
    rusage used = {};
    getrusage(RUSAGE_SELF, &used);
    text.Counter("process_cpu_seconds", "Processor time used.",
                 Seconds(used.ru_utime) + Seconds(used.ru_stime));
    // It stays the same while the clock is not set.
    const double started = TimeOfDay() - std::chrono::duration<double>(Now() - m_began).count();
    if (std::abs(started - m_started) > 1) {
        m_started = started;
    }
    text.Gauge("process_start_time_seconds", "When the program started, since 1970.", m_started);
    double pages = 0;
    double resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    const auto page = static_cast<double>(sysconf(_SC_PAGESIZE));
    text.Gauge("process_virtual_memory_bytes", "Address space.", pages * page);
    text.Gauge("process_resident_memory_bytes", "Memory used.", resident * page);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    text.Gauge("process_open_fds", "Open descriptors.", CountDescriptors());
    text.Gauge("process_max_fds", "Descriptors that may be open.",
               static_cast<double>(limit.rlim_cur));
}
