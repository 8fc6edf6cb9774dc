// From displays to outputs.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/Time.h"
#include "tools/tsl/Config.h"

// Decides the levels of the outputs. An output is low while its display is lit as its rule says.
// It gets its on-loss level when the host that told the display last has sent nothing well-formed
// for that long, or when nobody has told it since the start; and is not set before it was told.
class Rules {
public:
    struct Write {
        uint32_t tag;
        Level level;
    };

    // Replaces the rules. Those that stay the same keep what they know. Returns what to write to
    // outputs that no longer have a rule: as if their switchers were lost.
    std::vector<Write> Configure(const std::vector<TslRule>& rules);

    // Processes the displays of one packet, and when the host has sent it.
    void Take(const std::vector<Display>& displays, uint32_t host, TimePoint time);

    // Something that was sent is not known: what a display said before counts until its on-loss
    // time is over, however alive its host is, unless it is told again.
    void Doubt();

    // What to write now: after Take(), and when NextTime() has come.
    std::vector<Write> Tend();
    TimePoint NextTime() const;

    // How many displays with an on-loss level are lost.
    size_t LostCount() const;

    // A device has that level at an output. If it is another than was written, it is written again.
    void Told(uint32_t tag, std::optional<Level> level);

    // A device answers high for an output that was written low: it may not know, or it has not had
    // the write.
    void Denied(uint32_t tag);

    // A write has failed: it is tried again.
    void NotWritten(uint32_t tag);

    // Everything must be written again.
    void WriteAgain();

    // What to write because the program ends: as if all switchers were lost.
    std::vector<Write> End();

    // Texts for the log; the caller clears them.
    std::vector<std::string>& Notes() { return m_notes; }

private:
    struct Rule {
        TslRule config;
        std::optional<bool> lit;  // none: nobody has told, or who did is lost
        uint32_t host = 0;        // who told
        TimePoint good{};         // when that host was heard last, or the start
        bool doubtful = false;    // something may have been said since
        bool lost = false;
        std::optional<Level> written;  // none: nothing, or it must be written again
        std::optional<Level> shown;    // as written last
        TimePoint written_at{};
        int doubts = 0;                      // how often that was denied and written again
        TimePoint again = TimePoint::max();  // when to write once more
    };

    static void Release(const Rule& rule, std::vector<Write>& writes);
    void TendRule(Rule& rule, TimePoint now, std::vector<Write>& writes);

    std::vector<Rule> m_rules;
    std::map<uint32_t, TimePoint> m_hosts;  // that told a display of a rule: when they were heard
    std::vector<std::string> m_notes;
};
