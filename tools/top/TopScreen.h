// The terminal of top.
#pragma once

#include <memory>
#include <string>

#include "tools/top/TopTable.h"

// Keys as top knows them; what is typed comes as Text.
struct TopKey {
    enum class Kind { None, Text, Erase, Clear, Sort, Pause, Up, Down, PageUp, PageDown, Quit };
    Kind kind = Kind::None;
    std::string text;
};

// What stands above the rows.
struct TopHeading {
    std::string bus;  // "239.192.255.4 on eth0"
    size_t pins = 0;
    double changes = 0;  // a second
    bool is_paused = false;
    std::string note;  // "eth0 is down"; empty: nothing to say
};

// Draws on the terminal from the moment it is made until it ends, and leaves the terminal as it
// was. One to a process.
class TopScreen {
public:
    virtual ~TopScreen() = default;

    // Null when this build has no screen. Throws std::runtime_error with the reason when standard
    // input and output are no terminal that can be drawn on.
    static std::unique_ptr<TopScreen> Open();

    // The next key that was pressed; Kind::None when there is none. Never waits.
    virtual TopKey TakeKey() = 0;

    // Draws the rows from the first one on; keeps first within what there is.
    virtual void Draw(const TopHeading& heading, TopTable& table, size_t& first, TimePoint now) = 0;

    virtual size_t VisibleRows() const = 0;

    // After SIGWINCH.
    virtual void Resize() = 0;

    // Gives the terminal back, and takes it again with the next Draw().
    virtual void Suspend() = 0;
};
