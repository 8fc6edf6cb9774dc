// What a monitoring system is told about a bridge.
#pragma once

#include <string>

#include "tools/base/Time.h"

class Broker;
class Links;
class PinBook;
class Sets;

// Writes a file for the textfile collector of node_exporter, every few seconds: so nothing has to
// listen, and a file that gets old shows a bridge that hangs. It is removed at the end.
class Metrics {
public:
    // Without a name, nothing is written. All are used while it exists.
    Metrics(std::string file, const Broker& broker, PinBook& pins, const Sets& sets,
            const Links& links);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    // Writes the file if it is due, at NextTime(). Returns the reason if that fails, once.
    std::string Tend(bool is_online, bool stands_by);
    TimePoint NextTime() const { return m_next; }

private:
    std::string Text(bool is_online, bool stands_by) const;

    const std::string m_file;
    const double m_started = TimeOfDay();
    const Broker& m_broker;
    PinBook& m_pins;
    const Sets& m_sets;
    const Links& m_links;
    TimePoint m_next;
    std::string m_failure;
};
