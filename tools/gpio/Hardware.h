// The lines of all pins: edges become inputs of the server, its outputs drive lines.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "tools/base/Descriptor.h"
#include "tools/base/Time.h"
#include "tools/gpio/ChipLines.h"
#include "tools/server/ControlServer.h"

// Requests the lines of a configuration and keeps them. What can't be had, because its chip is not
// there or others use the line, is taken as soon as the kernel tells that something has changed: no
// timer runs for it. An input without its line is H. An output is what the server's device says,
// from the moment its line is taken.
//
// For one thread and one poll loop, as ControlServer.
class Hardware {
public:
    using Log = std::function<void(const std::string& text)>;

    // The server must exist as long as this. Throws std::system_error if the folder of the devices
    // can't be watched.
    Hardware(ControlServer& server, Log log);

    // Replaces the pins, see ChipLines::Connect.
    void Configure(const GpioConfig& config);

    // Sets the lines of an output. The driver of the server.
    void Drive(int number);

    void AddDescriptors(std::vector<pollfd>& fds) const;
    // When to call Serve() at the latest; TimePoint::max() for no limit.
    TimePoint NextTime() const { return m_retry; }

    // Returns whether Problems() may have changed.
    bool Serve(const std::vector<pollfd>& fds);

    // What does not work, with the reason. Empty if all does.
    std::vector<std::string> Problems() const;

    // Leaves all lines as on-exit says.
    void Release();

private:
    struct Pin {
        PinConfig config;
        ChipLines* chip = nullptr;  // null: the pin has no line
        unsigned int offset = 0;
        std::string problem;  // why it has none
    };

    bool HasHotplug(const std::vector<pollfd>& fds) const;
    void UpdateOutputs(const std::vector<Pin>& before);
    void ReportInputs(const std::vector<Pin>& before);
    void Reconcile();
    void DropLostChips();
    void Drop(ChipLines& chip, const std::string& reason);
    ChipLines* Open(const ChipInfo& info);
    void Connect(ChipLines& chip, const std::vector<Wire>& wires,
                 const std::vector<ChipInfo>& chips);
    void SetProblem(Pin& pin, const std::string& problem);
    void TakeEdges(std::vector<ChipLines::Edge>& edges);
    void Report(const PinConfig& pin, char level);
    void RetrySoon();

    ControlServer& m_server;
    const Log m_log;
    const ChipLines::LevelOf m_level_of;  // of the outputs, as the server's device has them
    Descriptor m_watch;                   // inotify
    GpioConfig m_config;
    std::vector<Pin> m_pins;  // in the order of the configuration
    std::list<ChipLines> m_chips;
    bool m_is_configuring = false;
    std::string m_output_problem;          // why outputs could not be set
    TimePoint m_retry = TimePoint::max();  // when to try again what has failed
};
