// The device that a control server shows: its pins, its configuration, and the effects of
// control lines.
#pragma once

#include <array>
#include <bitset>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

class LineWords;

// The effect of a line: an error, or lines to send, without line ends.
struct LineEffect {
    std::string error;                   // why the line was refused; empty if it was understood
    std::vector<std::string> answers;    // for the client that sent the line
    std::vector<std::string> broadcast;  // for every client
    int changed_input = 0;               // its InputLine() is for the clients that subscribed to it
    int changed_output = 0;              // its OutputLine() is for every client
    bool asked_configuration = false;    // the answers are the configuration
    int subscribe = 0;                   // the input that the client subscribes to
    int unsubscribe = 0;                 // the input that the client unsubscribes from
};

// 256 inputs (GPI), 32 outputs (GPO), five pins each, all high at first; a configuration line for
// each output; settings. It does not use sockets or a clock; callers pass the time.
//
// A state text has one to five characters, one for each pin: 'H' or 'h' (high), 'L' or 'l' (low),
// 'x' (leave this pin alone). Pins keep the given character. Pins beyond the text are left alone.
// Numbers may be decimal, hexadecimal (0x) or octal (0).
class DeviceState {
public:
    static constexpr int INPUTS = 256;
    static constexpr int OUTPUTS = 32;
    static constexpr size_t PINS = 5;

    using Clock = std::chrono::steady_clock;

    // A set of inputs; each input is the bit of its number.
    using InputSet = std::bitset<INPUTS + 1>;

    DeviceState();

    // Carries out a line of the device's operator, in the words that the server itself would send:
    //   SET field...               settings; replaces the SET line that begins with the same tag
    //   CFG GPO n field...         configuration of an output; replaces the one it had
    //   GPI n state                state of an input
    //   GPO n state [DURATION:ms]  state of an output
    // A line that changes nothing has an empty effect.
    LineEffect Apply(const std::string& line, Clock::time_point now);

    // Carries out a line of a client:
    //   SET                        asks for the settings
    //   CFG GPO                    asks for the configuration of all outputs
    //   ADD GPI n, DEL GPI n       subscribes to an input (it is reported at once), unsubscribes
    //   GPO n state [DURATION:ms]  sets pins of an output
    LineEffect Request(const std::string& line, Clock::time_point now);

    // With a duration, a pin returns after that many milliseconds to its earlier state. A later
    // line for the pin replaces that: without a duration the pin stays as that line says; with one
    // it returns, after the new time, to its state before the first.
    //
    // Ends the durations that are over. Returns the outputs that changed.
    std::vector<int> Expire(Clock::time_point now);

    // When the next duration ends, if any is running.
    std::optional<Clock::time_point> NextExpiry() const;

    // The pins of an output that exist; without this call, all do. Those that don't are high,
    // whatever is sent for them. Returns whether the state changed.
    bool SetPresent(int number, std::bitset<PINS> pins);

    // Removes a setting, as a SET line.
    void Forget(const std::string& setting);

    // The current "GPI n state" and "GPO n state", and the pins alone.
    std::string InputLine(int number) const;
    std::string OutputLine(int number) const;
    const std::string& OutputPins(int number) const;

    // The configuration line of each output that has one.
    const std::map<int, std::string>& Configuration() const { return m_configuration; }

    // The operator's lines that lead to the present state: settings, configuration, and the inputs
    // and outputs whose pins are not all 'H'.
    std::vector<std::string> Lines() const;

private:
    struct Pulse {
        char restore;
        Clock::time_point end;
    };
    struct Output {
        std::string pins;
        std::array<std::optional<Pulse>, PINS> pulses;
        std::bitset<PINS> present;
    };

    std::string SetInput(LineWords& words, LineEffect& effect);
    std::string SetOutput(LineWords& words, Clock::time_point now, LineEffect& effect);
    static void SetPin(Output& output, size_t pin, char state, int duration, Clock::time_point now);
    std::string Configure(LineWords& words, const std::string& line, LineEffect& effect);
    std::string ChangeSetting(LineWords& words, const std::string& line, LineEffect& effect);
    std::string AnswerConfiguration(LineWords& words, LineEffect& effect) const;
    std::string Subscribe(LineWords& words, bool on, LineEffect& effect) const;

    std::vector<std::string> m_settings;  // in the order they were made; the last one counts
    std::map<int, std::string> m_configuration;
    std::vector<std::string> m_inputs;
    std::vector<Output> m_outputs;
};
