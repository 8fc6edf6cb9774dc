#include "tools/gpio/Hardware.h"

#include <sys/inotify.h>

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <set>
#include <system_error>

namespace {

const double RETRY_S = 1;

// A state that leaves all other pins alone.
std::string StateOf(const PinConfig& pin, char level) {
    std::string state(DeviceState::PINS, 'x');
    state[pin.pin] = level;
    return (pin.is_output ? "GPO " : "GPI ") + std::to_string(pin.number) + " " + state;
}

template <typename Pins>
std::set<int> NumbersOf(const Pins& pins, bool outputs) {
    std::set<int> numbers;
    for (const auto& pin : pins) {
        if (pin.config.is_output == outputs) {
            numbers.insert(pin.config.number);
        }
    }
    return numbers;
}

}  // namespace

Hardware::Hardware(ControlServer& server, Log log)
    : m_server(server),
      m_log(std::move(log)),
      m_level_of([this](const PinConfig& pin) {
          return m_server.Device().OutputPins(pin.number)[pin.pin];
      }),
      m_watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    // A change of the attributes too: permissions are set after the chip has appeared.
    if (!m_watch.IsOpen() ||
        inotify_add_watch(m_watch.Get(), DEVICE_FOLDER, IN_CREATE | IN_DELETE | IN_ATTRIB) < 0) {
        throw std::system_error(errno, std::generic_category(),
                                std::string("can't watch ") + DEVICE_FOLDER);
    }
}

void Hardware::Configure(const GpioConfig& config) {
    const std::vector<Pin> before = m_pins;
    m_config = config;
    m_pins.clear();
    for (const PinConfig& pin : config.pins) {
        m_pins.push_back({pin, nullptr, 0, ""});
    }
    m_is_configuring = true;
    UpdateOutputs(before);
    m_is_configuring = false;
    Reconcile();
    ReportInputs(before);
}

// Tells the device which pins exist, and the initial level of the new ones.
void Hardware::UpdateOutputs(const std::vector<Pin>& before) {
    std::set<int> numbers = NumbersOf(m_pins, true);
    for (int number = 1; before.empty() && number <= DeviceState::OUTPUTS; ++number) {
        numbers.insert(number);
    }
    numbers.merge(NumbersOf(before, true));
    for (const int number : numbers) {
        std::bitset<DeviceState::PINS> present;
        for (const Pin& pin : m_pins) {
            if (pin.config.is_output && pin.config.number == number) {
                present.set(pin.config.pin);
            }
        }
        m_server.SetPresent(number, present);
    }
    for (const Pin& pin : m_pins) {
        const bool is_new = std::none_of(before.begin(), before.end(), [&pin](const Pin& other) {
            return other.config.IsSamePin(pin.config);
        });
        if (pin.config.is_output && is_new) {
            m_server.Apply(StateOf(pin.config, pin.config.initial));
        }
    }
}

void Hardware::ReportInputs(const std::vector<Pin>& before) {
    std::set<int> numbers = NumbersOf(m_pins, false);
    numbers.merge(NumbersOf(before, false));
    for (const int number : numbers) {
        std::string state(DeviceState::PINS, 'H');
        for (const Pin& pin : m_pins) {
            if (!pin.config.is_output && pin.config.number == number && pin.chip != nullptr) {
                state[pin.config.pin] = pin.chip->Find(pin.config)->level;
            }
        }
        m_server.Apply("GPI " + std::to_string(number) + " " + state);
    }
}

void Hardware::Drive(int number) {
    if (m_is_configuring) {
        return;
    }
    for (ChipLines& chip : m_chips) {
        try {
            chip.Drive(number, m_level_of);
        } catch (const std::system_error& error) {
            const std::string problem = chip.Text() + ": " + error.what();
            if (m_output_problem != problem) {
                m_log(problem);
            }
            m_output_problem = problem;
            RetrySoon();
        }
    }
}

void Hardware::RetrySoon() {
    m_retry = std::min(m_retry, After(RETRY_S));
}

void Hardware::AddDescriptors(std::vector<pollfd>& fds) const {
    fds.push_back({m_watch.Get(), POLLIN, 0});
    for (const ChipLines& chip : m_chips) {
        chip.AddDescriptors(fds);
    }
}

bool Hardware::Serve(const std::vector<pollfd>& fds) {
    bool has_changed = HasHotplug(fds);
    std::vector<ChipLines::Edge> edges;
    std::vector<std::pair<ChipLines*, std::string>> lost;
    for (ChipLines& chip : m_chips) {
        try {
            has_changed = chip.Read(fds, edges) || has_changed;
        } catch (const std::system_error& error) {
            lost.emplace_back(&chip, error.what());
        }
    }
    TakeEdges(edges);
    for (const auto& [chip, reason] : lost) {
        Drop(*chip, reason);
    }
    if (!has_changed && lost.empty() && m_retry > Now()) {
        return false;
    }
    Reconcile();
    return true;
}

// Whether a chip may have come or gone, or while one is missing, a link to it. Other devices do
// too.
bool Hardware::HasHotplug(const std::vector<pollfd>& fds) const {
    const auto is_ready = [this](const pollfd& entry) {
        return entry.fd == m_watch.Get() && entry.revents != 0;
    };
    if (std::none_of(fds.begin(), fds.end(), is_ready)) {
        return false;
    }
    bool is_chip = !Problems().empty();
    alignas(inotify_event) char data[4096];
    for (ssize_t got = 0; (got = read(m_watch.Get(), data, sizeof data)) > 0;) {
        for (const char* at = data; at < data + got;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(at);
            is_chip = is_chip || (event->mask & IN_Q_OVERFLOW) != 0 ||
                      (event->len > 0 && std::string(event->name).find("gpio") == 0);
            at += sizeof *event + event->len;
        }
    }
    return is_chip;
}

// Edges of several lines become lines of text in the order of their times.
void Hardware::TakeEdges(std::vector<ChipLines::Edge>& edges) {
    std::stable_sort(edges.begin(), edges.end(), [](const auto& a, const auto& b) {
        return a.event.time_ns < b.event.time_ns;
    });
    for (const ChipLines::Edge& edge : edges) {
        for (const char level : edge.line->Take(edge.event)) {
            Report(edge.line->pin, level);
        }
    }
    for (const ChipLines::Edge& edge : edges) {
        HeldLine& line = *edge.line;
        if (line.lost == 0) {
            continue;
        }
        m_log(line.pin.PinText() + ": " + std::to_string(line.lost) +
              " edges were lost, its line is read again");
        try {
            edge.chip->Refresh(line);
        } catch (const std::system_error&) {
            line.lost = 0;  // the chip has gone; poll() tells too
        }
        Report(line.pin, line.level);
    }
}

void Hardware::Report(const PinConfig& pin, char level) {
    m_server.Apply(StateOf(pin, level));
}

// Takes every line that can be had.
void Hardware::Reconcile() {
    m_retry = TimePoint::max();
    DropLostChips();
    const std::vector<ChipInfo> infos = FindChips();
    const std::vector<Wire> wires = FindWires(m_config, infos);
    for (size_t i = 0; i < m_pins.size(); ++i) {
        if (m_pins[i].chip == nullptr && !wires[i].place) {
            SetProblem(m_pins[i], wires[i].problem);
        } else if (m_pins[i].chip == nullptr) {
            Open(infos[wires[i].place->chip]);
        }
    }
    for (auto chip = m_chips.begin(); chip != m_chips.end();) {
        const auto next = std::next(chip);
        try {
            Connect(*chip, wires, infos);
        } catch (const std::system_error& error) {
            Drop(*chip, error.what());
            RetrySoon();
        }
        chip = next;
    }
    const std::string problem = std::exchange(m_output_problem, "");
    if (!problem.empty()) {
        for (ChipLines& chip : m_chips) {
            try {
                chip.DriveAll(m_level_of);
            } catch (const std::system_error& error) {
                m_output_problem = chip.Text() + ": " + error.what();
                RetrySoon();
            }
        }
        if (m_output_problem.empty()) {
            m_log("all outputs are set again");
        }
    }
}

void Hardware::DropLostChips() {
    for (auto chip = m_chips.begin(); chip != m_chips.end();) {
        const auto next = std::next(chip);
        try {
            chip->CheckIsThere();
        } catch (const std::system_error& error) {
            Drop(*chip, error.what());
        }
        chip = next;
    }
}

// The levels of its inputs are not known any more.
void Hardware::Drop(ChipLines& chip, const std::string& reason) {
    m_log(chip.Text() + " is lost: " + reason);
    for (Pin& pin : m_pins) {
        if (pin.chip == &chip) {
            pin.chip = nullptr;
            pin.problem = chip.Text() + " is lost";
            if (!pin.config.is_output) {
                Report(pin.config, 'H');
            }
        }
    }
    if (m_output_problem.find(chip.Text()) == 0) {
        m_output_problem.clear();
    }
    m_chips.remove_if([&chip](const ChipLines& other) { return &other == &chip; });
}

// Opens the chip unless it is open.
ChipLines* Hardware::Open(const ChipInfo& info) {
    const auto found = std::find_if(m_chips.begin(), m_chips.end(),
                                    [&info](const auto& chip) { return chip.Name() == info.name; });
    if (found != m_chips.end()) {
        return &*found;
    }
    try {
        return &m_chips.emplace_back(info);
    } catch (const std::system_error& error) {
        m_log(info.path + ": " + error.what());
        RetrySoon();
        return nullptr;
    }
}

// Pins that have a line of the chip keep it, even if another chip has one of the same name by now.
void Hardware::Connect(ChipLines& chip, const std::vector<Wire>& wires,
                       const std::vector<ChipInfo>& chips) {
    std::vector<WantedLine> wanted;
    std::vector<Pin*> pins;
    for (size_t i = 0; i < m_pins.size(); ++i) {
        Pin& pin = m_pins[i];
        const std::optional<Place>& place = wires[i].place;
        if (pin.chip == nullptr && place && chips[place->chip].name == chip.Name()) {
            wanted.push_back({pin.config, place->offset});
        } else if (pin.chip == &chip) {
            wanted.push_back({pin.config, pin.offset});
        } else {
            continue;
        }
        pins.push_back(&pin);
    }
    const std::vector<std::string> problems = chip.Connect(wanted, m_level_of);
    for (size_t i = 0; i < pins.size(); ++i) {
        Pin& pin = *pins[i];
        const bool is_new = pin.chip == nullptr && problems[i].empty();
        SetProblem(pin, problems[i].empty() ? "" : pin.config.LineText() + " " + problems[i]);
        pin.offset = wanted[i].offset;
        pin.chip = problems[i].empty() ? &chip : nullptr;
        if (is_new && !pin.config.is_output) {
            Report(pin.config, chip.Find(pin.config)->level);
        }
    }
    if (pins.empty()) {
        m_chips.remove_if([&chip](const ChipLines& other) { return &other == &chip; });
    }
}

void Hardware::SetProblem(Pin& pin, const std::string& problem) {
    if (pin.problem != problem) {
        m_log(pin.config.PinText() + (problem.empty() ? " has its line" : ": " + problem));
        pin.problem = problem;
    }
}

std::vector<std::string> Hardware::Problems() const {
    std::vector<std::string> problems;
    for (const Pin& pin : m_pins) {
        if (!pin.problem.empty()) {
            problems.push_back(pin.config.PinText() + ": " + pin.problem);
        }
    }
    if (!m_output_problem.empty()) {
        problems.push_back(m_output_problem);
    }
    return problems;
}

void Hardware::Release() {
    for (ChipLines& chip : m_chips) {
        try {
            chip.Release();
        } catch (const std::system_error& error) {
            m_log(chip.Text() + ": " + error.what());
        }
    }
    m_chips.clear();
}
