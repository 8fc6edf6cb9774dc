// Why a source means what it means.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/source.h"

// What the daemon makes of a source, and what in it does not mean what it seems to.
struct SourceReading {
    std::string source;  // the value as written
    ChannelConfig config;
    std::vector<std::string> notes;  // sentences, most telling first; empty: it means what it says
};

// Reads "SRCA=value", with further fields or not, or a whole line "CFG GPO n SRCA=value". None when
// the daemon would find no source in it.
std::optional<SourceReading> ReadSource(const std::string& text);

// The field that begins at value, up to its end, with quotes and escapes.
std::string FieldText(const char* value);
