// Texts as pictures that phones read.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

const size_t MAX_QR_TEXT = 1000;  // bytes

// A QR code as SVG, black on white with the margin that readers need. None if the text is empty or
// too long.
std::optional<std::string> QrSvg(const std::string& text);
