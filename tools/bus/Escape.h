// Bytes from a peer as a text that may be shown.
#pragma once

#include <string>

// Bytes that are not UTF-8 become \xNN, and a backslash becomes two. The result is valid UTF-8.
std::string EscapeBytes(const std::string& bytes);

// The bytes that EscapeBytes was given. A backslash that begins none of its escapes is taken as it
// is.
std::string UnescapeBytes(const std::string& text);
