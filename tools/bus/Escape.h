// Bytes from a peer as printable text.
#pragma once

#include <string>

// Bytes that are not UTF-8 become \xNN, and a backslash becomes two. The result is valid UTF-8.
std::string EscapeBytes(const std::string& bytes);

// The bytes that were passed to EscapeBytes. A backslash that begins no escape is taken literally.
std::string UnescapeBytes(const std::string& text);
