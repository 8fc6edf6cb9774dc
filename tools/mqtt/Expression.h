// What drives a linked output: a pin, or several:
//
//   studio:1:2:in1
//   any(studio:1:2:in1, not tower:door lost L)
//   2 of (a:1:2:in1, b:1:2:in1, all(c:1:2:in1, c:1:2:in2))
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/bus/PinWrite.h"

// A pin at a site. A name is known only to its own site: others have no number for it.
struct SitePin {
    std::string site;
    std::string pin;  // "1:2:in1", or a name
    std::optional<uint32_t> tag;

    std::string Text() const { return site + ":" + pin; }
    bool operator==(const SitePin& other) const { return Text() == other.Text(); }
};

// A level that is not known makes the value unknown unless the others decide it.
struct Expression {
    enum class Kind { Pin, Not, AtLeast };

    Kind kind = Kind::Pin;
    SitePin pin;                     // of Pin
    std::optional<Level> when_lost;  // of Pin; none: not known
    size_t least = 0;                // of AtLeast: as many parts must be low
    std::vector<Expression> parts;   // one of Not

    using Levels = std::function<std::optional<Level>(const Expression& pin)>;

    std::optional<Level> Value(const Levels& level_of) const;

    // All pins, from left to right; one that occurs twice is visited twice.
    void ForEachPin(const std::function<void(const Expression& pin)>& visit) const;

    // As it can be written in a file.
    std::string Text() const;
};

Level Opposite(Level level);

// Throws std::invalid_argument with the reason. parse_pin is given "SITE:PIN".
Expression ParseExpression(const std::string& text,
                           const std::function<SitePin(const std::string&)>& parse_pin);
