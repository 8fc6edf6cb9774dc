// A trial of a control server: the duties, in the order in which they are tried.
#pragma once

#include <string>
#include <vector>

#include "tools/conform/Conform.h"
#include "tools/conform/LineTrial.h"

// Follows one channel, of the bus if there is one. Each duty begins with an open connection on
// which settings and configuration have been asked for, with all pins of the output high, and
// leaves it so.
class ControlTrial {
public:
    // Connects. Throws NobodyThere.
    ControlTrial(const CSvcAddress& server, const ConformSettings& settings);

    // Connects again and brings the output to its beginning, if need be. False if that fails.
    bool Prepare();

    // Leaves the output high.
    void Finish();

    Outcome Settings();
    Outcome Configuration();
    Outcome Write();
    Outcome EachLine();
    Outcome Alone();
    Outcome Pieces();
    Outcome Ignores();
    Outcome Burst();
    Outcome Subscribe();
    Outcome Source();
    Outcome Duration();
    Outcome Overlap();
    Outcome Override();
    Outcome Again();
    Outcome SubscribeAgain();
    Outcome Kept();
    Outcome Away();
    Outcome Second();
    Outcome Inputs();
    Outcome Subscription();
    Outcome Idle();
    Outcome Lines();

private:
    // Names of what a duty needs.
    enum Needs { Output, TwoPins, Input };

    bool Connect();
    LineTrial Beside() const;  // another connection
    bool Lacks(Needs needs, Outcome& outcome) const;
    std::string Line(const std::string& word, const std::string& state) const;
    std::string With(size_t pin, char level, char others = 'x') const;
    void SetPin(size_t pin, char level, const char* behind = "");
    static std::string AllHigh();
    // Whether a state, or the output, has these pins; 'x' is any level, and a pin that is missing
    // reads high.
    static bool Shows(const std::string& state, const std::string& pins);
    bool Shows(const std::string& pins) { return Shows(m_end.Output(m_number), pins); }
    bool AwaitPins(const std::string& pins);
    bool AwaitPins(const std::string& pins, std::chrono::milliseconds time);
    Outcome ExpectPins(const std::string& pins);
    bool AwaitInput();
    Outcome Pulse(const char* second, std::chrono::milliseconds longest);
    Outcome TryInput(bool across_connections);

    const CSvcAddress m_server;
    const ConformSettings m_settings;
    LineTrial m_end;
    int m_number = 0;            // of the channel; 0: there is none
    bool m_is_bus = false;       // its source is on the bus
    std::vector<size_t> m_pins;  // of its output, that can be switched
    std::vector<size_t> m_late;  // those of them that needed a line in a piece of its own
};
