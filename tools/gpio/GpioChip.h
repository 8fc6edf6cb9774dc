// The kernel's interface to GPIO chips, version 2 of <linux/gpio.h>. All functions throw
// std::system_error with the reason if the kernel refuses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/base/Descriptor.h"

// How a line is used: GPIO_V2_LINE_FLAG_... of the kernel, and the time for which a level must last
// to count.
struct LineSettings {
    uint64_t flags = 0;
    uint32_t debounce_us = 0;

    bool operator==(const LineSettings& other) const {
        return flags == other.flags && debounce_us == other.debounce_us;
    }
};

// A line of a request. The kernel's flag for active-low lines is respected everywhere: a line is
// active or not, whatever its voltage.
struct RequestedLine {
    unsigned int offset = 0;
    LineSettings settings;
    bool is_active = false;  // what an output is set to
};

// An edge of an input.
struct LineEvent {
    uint64_t time_ns = 0;  // CLOCK_MONOTONIC, from the kernel
    unsigned int offset = 0;
    uint32_t number = 0;  // of the line's edges, counted from 1; gaps are edges that were lost
    bool is_active = false;
};

// Lines that this program has to itself until the end of this object. In masks and values, bit n
// stands for line n of the request.
class LineRequest {
public:
    static constexpr size_t MAX_LINES = 64;
    static constexpr size_t MAX_EVENTS = 64;  // of one ReadEvents()

    explicit LineRequest(Descriptor descriptor) : m_descriptor(std::move(descriptor)) {}

    // For poll(): readable while there are events; POLLERR or POLLHUP after the chip has gone.
    int Get() const { return m_descriptor.Get(); }

    // Sets the lines of the mask, all at once.
    void SetValues(uint64_t mask, uint64_t active) const;

    uint64_t GetValues(uint64_t mask) const;

    // Changes the settings of lines without releasing any; give all of them, in the same order.
    // Lines whose settings are the same don't change.
    void Reconfigure(const std::vector<RequestedLine>& lines) const;

    // Appends waiting events. Never waits.
    void ReadEvents(std::vector<LineEvent>& events) const;

private:
    Descriptor m_descriptor;
};

struct LineInfo {
    std::string name;      // may be empty
    std::string consumer;  // of a line that is used; may be empty all the same
    uint64_t flags = 0;

    bool IsUsed() const;
};

struct ChipInfo {
    std::string path;
    std::string name;  // "gpiochip0"
    std::string label;
    std::vector<LineInfo> lines;
    std::string problem;  // why it can't be used: then all but the path is empty
};

class GpioChip {
public:
    explicit GpioChip(const std::string& path);

    // Throws if the chip has gone.
    ChipInfo Describe() const;
    LineInfo DescribeLine(unsigned int offset) const;

    // For poll(): readable after something has happened to a watched line; POLLERR or POLLHUP after
    // the chip has gone.
    int Get() const { return m_descriptor.Get(); }

    // Watches whether others request or release the line. Watching it again has no effect.
    void WatchLine(unsigned int offset) const;

    // Takes what the descriptor has to tell about watched lines. Never waits.
    void ReadChanges() const;

    // At most LineRequest::MAX_LINES.
    LineRequest Request(const std::vector<RequestedLine>& lines, const char* consumer) const;

private:
    std::string m_path;
    Descriptor m_descriptor;
};

// The folder of the character devices. Watch it to see chips come and go.
extern const char* const DEVICE_FOLDER;

// All chips, in the order of their numbers.
std::vector<ChipInfo> FindChips();
