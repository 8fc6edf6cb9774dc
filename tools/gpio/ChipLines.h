// The lines of one chip that the program has requested.
#pragma once

#include <poll.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "tools/gpio/Wiring.h"

// A pin, and where its line is on a chip.
struct WantedLine {
    PinConfig pin;
    unsigned int offset = 0;
};

// A line that has been requested, alone or with others.
struct HeldLine {
    PinConfig pin;  // that it is connected to, or was if it is not needed any more
    unsigned int offset = 0;
    LineSettings settings;
    bool is_needed = true;
    bool is_active = false;  // what an output was set to
    char level = 'H';        // of an input
    uint32_t edges = 0;      // the number of its last edge
    uint64_t read_ns = 0;    // when its level was read
    uint32_t lost = 0;       // edges since then that were lost
    uint64_t pulse_ns = 0;   // when a level was last missed

    // Takes an edge of an input. Returns the levels that it has had since the last one, in order.
    std::string Take(const LineEvent& edge);
};

// Each input has a request of its own, so that it can come and go without the others; the outputs
// have one together, so that relays switch together. Outputs that come later get a further one:
// the kernel can change the lines of a request, but not add to them without releasing all.
//
// Functions throw std::system_error if the chip fails or has gone.
class ChipLines {
public:
    struct Edge {
        LineEvent event;
        HeldLine* line = nullptr;
        ChipLines* chip = nullptr;
    };

    // The level, 'H' or 'L', that an output should have.
    using LevelOf = std::function<char(const PinConfig&)>;

    explicit ChipLines(const ChipInfo& chip);

    const std::string& Name() const { return m_name; }
    const std::string& Text() const { return m_text; }

    // Whether any line is requested.
    bool IsInUse() const { return !m_requests.empty(); }

    // Throws if the chip has gone.
    void CheckIsThere() const { m_device.DescribeLine(0); }

    // Makes these the pins of the chip. Lines that stay are not released, and not touched if their
    // settings stay; lines that are not needed any more are left as on-exit says. Returns, for each
    // pin, why its line can't be had; empty if it has it.
    std::vector<std::string> Connect(const std::vector<WantedLine>& wanted,
                                     const LevelOf& level_of);

    // Sets the outputs of this GPO, or of all: those of one request at once.
    void Drive(int number, const LevelOf& level_of);
    void DriveAll(const LevelOf& level_of) { Drive(0, level_of); }

    // Null if the pin has no line here.
    const HeldLine* Find(const PinConfig& pin) const;

    void AddDescriptors(std::vector<pollfd>& fds) const;

    // Appends the edges behind those of the descriptors that are this chip's. Returns whether
    // something else has happened to it, for example to lines of others that it needs.
    bool Read(const std::vector<pollfd>& ready, std::vector<Edge>& edges);

    // Reads the level of an input again.
    void Refresh(HeldLine& line);

    // Leaves all lines as on-exit says.
    void Release();

private:
    struct Request {
        LineRequest lines;
        std::vector<HeldLine> held;  // of constant size
    };

    std::vector<WantedLine> TakeOver(const std::vector<WantedLine>& wanted,
                                     const LevelOf& level_of);
    void Change(Request& request, const std::vector<HeldLine>& before, const LevelOf& level_of);
    std::string Add(const std::vector<WantedLine>& wanted, const LevelOf& level_of);
    std::string AddOutputs(std::vector<WantedLine> wanted, const LevelOf& level_of);
    std::string UserOf(unsigned int offset) const;
    static void Leave(Request& request);
    static void Set(Request& request, const std::function<bool(const HeldLine&)>& which,
                    const LevelOf& level_of);
    static std::vector<RequestedLine> LinesOf(const Request& request);

    std::string m_name;
    std::string m_text;
    GpioChip m_device;
    std::list<Request> m_requests;
};
