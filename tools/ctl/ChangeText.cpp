#include "tools/ctl/ChangeText.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "tools/bus/Interface.h"
#include "tools/bus/PinJson.h"
#include "tools/bus/PinName.h"
#include "tools/ctl/MessageText.h"

namespace {

const char* const FIELDS = "pnxglodkshUt%";

std::string HostOf(const PinChange& change) {
    return change.host == 0 ? "-" : HostText(change.host);
}

std::string SecondsText(double time) {
    char text[40];
    snprintf(text, sizeof text, "%.3f", time);
    return text;
}

// The part of the line about the level.
std::string LevelsText(const PinChange& change) {
    if (change.denied) {
        return LevelText(change.after) + ", answered H";
    }
    const std::string after = LevelText(PinValue{change.after, change.duration_ms});
    if (!change.IsNewLevel()) {
        return after + (change.status == PinStatus::Told ? ", confirmed" : "");
    }
    return LevelText(change.before) + " > " + (change.after ? after : "?, nobody answers");
}

std::string FieldText(char field, const PinChange& change, const Names& names) {
    const std::string name = names.NameOf(change.tag);
    switch (field) {
        case 'p':
            return PinText(change.tag);
        case 'n':
            return name.empty() ? PinText(change.tag) : name;
        case 'x':
            return names.TextOf(change.tag);
        case 'g':
            return names.GroupOf(change.tag);
        case 'l':
            return LevelText(change.after);
        case 'o':
            return LevelText(change.before);
        case 'd':
            return std::to_string(change.duration_ms);
        case 'k':
            return CauseText(change.cause);
        case 's':
            return StatusText(change.status);
        case 'h':
            return HostOf(change);
        case 'U':
            return SecondsText(change.time);
        case 't':
            return TimeText(change.time);
        default:
            return "%";
    }
}

}  // namespace

std::string ToText(const PinChange& change, const Names& names) {
    const std::string line = TimeText(change.time) + "  " + Padded(HostOf(change), 15) + "  " +
                             Padded(CauseText(change.cause), 6) + "  " +
                             Padded(PinText(change.tag), 12) + "  " +
                             Padded(LevelsText(change), 5) + "  " + names.NameOf(change.tag);
    return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

ChangeFormat::ChangeFormat(const std::string& format) {
    for (size_t i = 0; i < format.size(); ++i) {
        const char next = i + 1 < format.size() ? format[i + 1] : '\0';
        if (format[i] == '%' && (next == '\0' || strchr(FIELDS, next) == nullptr)) {
            throw std::invalid_argument(std::string("no field %") + next +
                                        "; fields are %p %n %x "
                                        "%g %l %o %d %k %s %h %U %t and %%: " +
                                        format);
        }
        if (format[i] == '\\' && (next == 'n' || next == 't' || next == '\\')) {
            m_format += next == 'n' ? '\n' : next == 't' ? '\t' : '\\';
            ++i;
            continue;
        }
        m_format += format[i];
        if (format[i] == '%') {
            m_format += next;
            ++i;
        }
    }
}

std::string ChangeFormat::Text(const PinChange& change, const Names& names) const {
    std::string text;
    for (size_t i = 0; i < m_format.size(); ++i) {
        text += m_format[i] == '%' ? FieldText(m_format[++i], change, names)
                                   : std::string(1, m_format[i]);
    }
    return text + "\n";
}
