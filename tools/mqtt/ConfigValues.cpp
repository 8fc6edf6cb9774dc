#include "tools/mqtt/ConfigValues.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

void Refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

double ParseNumber(const std::string& text, double least, double most) {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(number >= least && number <= most)) {
        std::ostringstream reason;
        reason << "not a number from " << least << " to " << most << ": " << text;
        Refuse(reason.str());
    }
    return number;
}

int ParseWhole(const std::string& text, int least, int most) {
    const double number = ParseNumber(text, least, most);
    if (number != std::floor(number)) {
        Refuse("not a whole number: " + text);
    }
    return static_cast<int>(number);
}

std::string ParseLevelName(const std::string& text) {
    const bool good = std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-';
    });
    if (!good || text.size() > 64) {
        Refuse("not made of letters, digits, '.', '_' and '-': " + text);
    }
    return text;
}
