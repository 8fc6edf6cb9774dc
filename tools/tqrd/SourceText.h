// Sources of channels, as text.
#pragma once

#include <string>

#include "protocol/source.h"

// The field that begins at value, up to its end, with quotes and escapes.
std::string FieldText(const char* value);

// The number of the input that a channel of KIND_REMOTE follows: only 8 bits of it are sent to the
// server.
int RemoteInput(const ChannelConfig& config);

// "10.0.0.9:94", the server of a channel of KIND_REMOTE.
std::string RemoteServer(const ChannelConfig& config);

// What drives the output, in words: "writes on the bus to 1:2", "input 3 of 10.0.0.9:94" or
// "nothing".
std::string DescribeSource(const ChannelConfig& config);
