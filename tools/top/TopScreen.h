// The terminal of top.
#pragma once

#include <memory>
#include <string>

#include "tools/top/TopTable.h"

// The keys of top; typed characters come as Text.
struct TopKey {
    enum class Kind { None, Text, Erase, Clear, Sort, Pause, Up, Down, PageUp, PageDown, Quit };
    Kind kind = Kind::None;
    std::string text;
};

// The lines above the rows.
struct TopHeading {
    std::string bus;  // "239.192.255.4 on eth0"
    size_t pins = 0;
    double changes = 0;  // per second
    bool is_paused = false;
    std::string note;  // "eth0 is down"; empty: nothing to show
};

// Draws on the terminal during its lifetime, and restores the terminal afterwards. One per process.
class TopScreen {
public:
    virtual ~TopScreen() = default;

    // Null if this build has no screen. Throws std::runtime_error with the reason if standard input
    // and output are no usable terminal.
    static std::unique_ptr<TopScreen> Open();

    // The next key pressed; Kind::None if there is none. Never waits.
    virtual TopKey TakeKey() = 0;

    // Draws the rows from first on; keeps first within range.
    virtual void Draw(const TopHeading& heading, TopTable& table, size_t& first, TimePoint now) = 0;

    virtual size_t VisibleRows() const = 0;

    // After SIGWINCH.
    virtual void Resize() = 0;

    // Releases the terminal until the next Draw().
    virtual void Suspend() = 0;
};
