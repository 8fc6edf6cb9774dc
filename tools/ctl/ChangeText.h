// Changes of pins as lines for people and for scripts.
#pragma once

#include <string>

#include "tools/bus/Names.h"
#include "tools/bus/PinStates.h"

// A line in the columns of messages:
//
//   14:02:11.512  10.77.0.2        write   1:2:out3      H > L for 500 ms  studio1.onair
std::string ToText(const PinChange& change, const Names& names);

// The fields of a line of --format.
//
//   %p pin         %n name, or the pin without one    %x text    %g group
//   %l level       %o level before, ? when not known  %d duration in ms, 0 without
//   %k kind        %s state                           %h host that told or wrote it
//   %U time in seconds since 1970                     %t time of day       %% a percent sign
//
// \n, \t and \\ are a line end, a tab and a backslash. Every line gets a line end.
class ChangeFormat {
public:
    // Throws std::invalid_argument with the reason.
    explicit ChangeFormat(const std::string& format);

    std::string Text(const PinChange& change, const Names& names) const;

private:
    std::string m_format;
};
