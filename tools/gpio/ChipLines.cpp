#include "tools/gpio/ChipLines.h"

#include <linux/gpio.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>

namespace {

const uint64_t LONGEST_DELAY_NS = 20000000;  // until the kernel looks at the level

// Of the clock of the edges.
uint64_t Nanoseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

bool IsActive(char level) {
    return level == 'L' || level == 'l';
}

bool IsOutput(const LineSettings& settings) {
    return (settings.flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0;
}

HeldLine Hold(const WantedLine& wanted, const ChipLines::LevelOf& level_of) {
    HeldLine line;
    line.pin = wanted.pin;
    line.offset = wanted.offset;
    line.settings = wanted.pin.settings;
    line.is_active = wanted.pin.is_output && IsActive(level_of(wanted.pin));
    return line;
}

// An input that tells nothing.
LineSettings Released(const HeldLine& line) {
    const uint64_t kept = GPIO_V2_LINE_FLAG_ACTIVE_LOW | GPIO_V2_LINE_FLAG_BIAS_PULL_UP |
                          GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN | GPIO_V2_LINE_FLAG_BIAS_DISABLED;
    return {(line.settings.flags & kept) | GPIO_V2_LINE_FLAG_INPUT, 0};
}

}  // namespace

// The kernel looks at the level after the edge. An edge to the level that the line had, without a
// gap in the numbers, means that it was too late: the level has gone away and come back. The edge
// that came back may tell the same a moment later. Edges from before the level was read don't tell
// it, as that level may be theirs.
std::string HeldLine::Take(const LineEvent& edge) {
    const uint32_t missing = edge.number - edges - 1;
    const char now = edge.is_active ? 'L' : 'H';
    const char other = edge.is_active ? 'H' : 'L';
    const bool is_pulse = now == level && missing == 0 && edge.time_ns > read_ns &&
                          edge.time_ns - pulse_ns > LONGEST_DELAY_NS;
    edges = edge.number;
    lost += missing;
    level = now;
    pulse_ns = is_pulse ? edge.time_ns : pulse_ns;
    return is_pulse ? std::string{other, now} : std::string{now};
}

ChipLines::ChipLines(const ChipInfo& chip)
    : m_name(chip.name), m_text(ChipText(chip)), m_device(chip.path) {}

std::vector<std::string> ChipLines::Connect(const std::vector<WantedLine>& wanted,
                                            const LevelOf& level_of) {
    const std::vector<WantedLine> added = TakeOver(wanted, level_of);
    std::vector<WantedLine> outputs;
    std::vector<std::pair<PinConfig, std::string>> problems;
    for (const WantedLine& line : added) {
        std::string problem = UserOf(line.offset);
        if (problem.empty() && line.pin.is_output) {
            outputs.push_back(line);
        } else if (problem.empty()) {
            problem = Add({line}, level_of);
        }
        problems.emplace_back(line.pin, problem);
    }
    const std::string problem = outputs.empty() ? "" : AddOutputs(outputs, level_of);
    std::vector<std::string> results;
    for (const WantedLine& line : wanted) {
        const auto is_its = [&line](const auto& entry) { return entry.first.IsSamePin(line.pin); };
        const auto found = std::find_if(problems.begin(), problems.end(), is_its);
        results.push_back(found == problems.end()  ? ""
                          : !found->second.empty() ? found->second
                          : line.pin.is_output     ? problem
                                                   : "");
    }
    return results;
}

// Gives lines that are held already to their pins. Returns the others.
std::vector<WantedLine> ChipLines::TakeOver(const std::vector<WantedLine>& wanted,
                                            const LevelOf& level_of) {
    std::vector<WantedLine> added = wanted;
    for (Request& request : m_requests) {
        const std::vector<HeldLine> before = request.held;
        for (HeldLine& line : request.held) {
            const auto found = std::find_if(
                added.begin(), added.end(),
                [&line](const WantedLine& other) { return other.offset == line.offset; });
            line.is_needed = found != added.end();
            if (line.is_needed) {
                line.pin = found->pin;
                added.erase(found);
            }
        }
        Change(request, before, level_of);
    }
    m_requests.remove_if([](const Request& request) {
        return std::none_of(request.held.begin(), request.held.end(),
                            [](const HeldLine& line) { return line.is_needed; });
    });
    return added;
}

// Brings the kernel's settings of the request up to those of its pins.
void ChipLines::Change(Request& request, const std::vector<HeldLine>& before,
                       const LevelOf& level_of) {
    Leave(request);
    bool has_new_settings = false;
    bool has_new_pin = false;
    for (size_t i = 0; i < before.size(); ++i) {
        HeldLine& line = request.held[i];
        if (!line.is_needed) {
            continue;
        }
        has_new_pin = has_new_pin || !line.pin.IsSamePin(before[i].pin) || !before[i].is_needed;
        has_new_settings = has_new_settings || !(line.settings == line.pin.settings);
        line.settings = line.pin.settings;
        line.is_active = IsOutput(line.settings) && IsActive(level_of(line.pin));
    }
    if (has_new_settings) {
        request.lines.Reconfigure(LinesOf(request));
        for (HeldLine& line : request.held) {
            if (line.is_needed && !line.pin.is_output) {
                Refresh(line);
            }
        }
    } else if (has_new_pin) {
        Set(
            request, [](const HeldLine&) { return true; }, level_of);
    }
}

// Requests the lines. Returns why that is not possible.
std::string ChipLines::Add(const std::vector<WantedLine>& wanted, const LevelOf& level_of) {
    Request request{LineRequest(Descriptor()), {}};
    for (const WantedLine& line : wanted) {
        request.held.push_back(Hold(line, level_of));
    }
    try {
        request.lines = m_device.Request(LinesOf(request), CONSUMER);
    } catch (const std::system_error& error) {
        return error.what();
    }
    m_requests.push_back(std::move(request));
    for (HeldLine& line : m_requests.back().held) {
        if (!line.pin.is_output) {
            Refresh(line);
        }
    }
    return {};
}

std::string ChipLines::AddOutputs(std::vector<WantedLine> wanted, const LevelOf& level_of) {
    std::string problem;
    while (!wanted.empty()) {
        const size_t count = std::min(wanted.size(), LineRequest::MAX_LINES);
        const auto end = wanted.begin() + static_cast<std::ptrdiff_t>(count);
        problem += Add(std::vector<WantedLine>(wanted.begin(), end), level_of);
        wanted.erase(wanted.begin(), end);
    }
    return problem;
}

// Why others prevent a request of the line; empty if they don't. Watches the line in that case, and
// looks again, as they may just have released it.
std::string ChipLines::UserOf(unsigned int offset) const {
    LineInfo line = m_device.DescribeLine(offset);
    if (line.IsUsed()) {
        m_device.WatchLine(offset);
        line = m_device.DescribeLine(offset);
    }
    if (!line.IsUsed()) {
        return {};
    }
    return "is used by " + (line.consumer.empty() ? "the kernel" : line.consumer);
}

void ChipLines::Drive(int number, const LevelOf& level_of) {
    for (Request& request : m_requests) {
        Set(
            request,
            [number](const HeldLine& line) { return number == 0 || line.pin.number == number; },
            level_of);
    }
}

void ChipLines::Set(Request& request, const std::function<bool(const HeldLine&)>& which,
                    const LevelOf& level_of) {
    uint64_t mask = 0;
    uint64_t active = 0;
    for (size_t i = 0; i < request.held.size(); ++i) {
        HeldLine& line = request.held[i];
        if (line.is_needed && line.pin.is_output && which(line)) {
            line.is_active = IsActive(level_of(line.pin));
            mask |= uint64_t(1) << i;
            active |= uint64_t(line.is_active) << i;
        }
    }
    if (mask != 0) {
        request.lines.SetValues(mask, active);
    }
}

const HeldLine* ChipLines::Find(const PinConfig& pin) const {
    for (const Request& request : m_requests) {
        for (const HeldLine& line : request.held) {
            if (line.is_needed && line.pin.IsSamePin(pin)) {
                return &line;
            }
        }
    }
    return nullptr;
}

void ChipLines::AddDescriptors(std::vector<pollfd>& fds) const {
    fds.push_back({m_device.Get(), POLLIN, 0});
    for (const Request& request : m_requests) {
        fds.push_back({request.lines.Get(), POLLIN, 0});
    }
}

bool ChipLines::Read(const std::vector<pollfd>& ready, std::vector<Edge>& edges) {
    const auto is_ready = [&ready](int descriptor) {
        return std::any_of(ready.begin(), ready.end(), [descriptor](const pollfd& entry) {
            return entry.fd == descriptor && entry.revents != 0;
        });
    };
    const bool has_changed = is_ready(m_device.Get());
    if (has_changed) {
        m_device.ReadChanges();
    }
    std::vector<LineEvent> events;
    for (Request& request : m_requests) {
        events.clear();
        if (is_ready(request.lines.Get())) {
            request.lines.ReadEvents(events);
        }
        for (const LineEvent& event : events) {
            for (HeldLine& line : request.held) {
                if (line.offset == event.offset && line.is_needed && !line.pin.is_output) {
                    edges.push_back({event, &line, this});
                }
            }
        }
    }
    return has_changed;
}

void ChipLines::Refresh(HeldLine& line) {
    for (Request& request : m_requests) {
        for (size_t i = 0; i < request.held.size(); ++i) {
            if (&request.held[i] == &line) {
                const uint64_t mask = uint64_t(1) << i;
                line.level = (request.lines.GetValues(mask) & mask) != 0 ? 'L' : 'H';
                line.read_ns = Nanoseconds();
                line.lost = 0;
            }
        }
    }
}

void ChipLines::Release() {
    for (Request& request : m_requests) {
        for (HeldLine& line : request.held) {
            line.is_needed = false;
        }
        Leave(request);
    }
    m_requests.clear();
}

// Does what on-exit says with the lines that are not needed any more.
void ChipLines::Leave(Request& request) {
    uint64_t mask = 0;
    uint64_t active = 0;
    bool has_new_settings = false;
    for (size_t i = 0; i < request.held.size(); ++i) {
        HeldLine& line = request.held[i];
        const OnExit on_exit = line.pin.on_exit;
        const bool is_output = IsOutput(line.settings);
        if (line.is_needed || (is_output && on_exit == OnExit::Keep)) {
            continue;
        }
        if (is_output && on_exit != OnExit::Input) {
            line.is_active = on_exit == OnExit::Low;
            mask |= uint64_t(1) << i;
            active |= uint64_t(line.is_active) << i;
        } else if (!(line.settings == Released(line))) {
            line.settings = Released(line);
            has_new_settings = true;
        }
    }
    if (mask != 0) {
        request.lines.SetValues(mask, active);
    }
    if (has_new_settings) {
        request.lines.Reconfigure(LinesOf(request));
    }
}

std::vector<RequestedLine> ChipLines::LinesOf(const Request& request) {
    std::vector<RequestedLine> lines;
    for (const HeldLine& line : request.held) {
        lines.push_back({line.offset, line.settings, line.is_active});
    }
    return lines;
}
