// Explains how a source is read.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "protocol/source.h"

// How the daemon reads a source, and what in it does not mean what it seems to mean.
struct SourceReading {
    std::string source;  // the value as written
    ChannelConfig config;
    std::vector<std::string> notes;  // sentences, the most important first; empty: no surprises
    std::string defaults;            // a sentence about what the source leaves out, or empty
};

// Reads "SRCA=value", with or without further fields, or a whole line "CFG GPO n SRCA=value". None
// if the daemon would find no source in it.
std::optional<SourceReading> ReadSource(const std::string& text);
