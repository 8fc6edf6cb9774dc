// Values in the configuration file. What is wrong is thrown as std::invalid_argument with the
// reason.
#pragma once

#include <string>

[[noreturn]] void Refuse(const std::string& reason);

double ParseNumber(const std::string& text, double least, double most);
int ParseWhole(const std::string& text, int least, int most);

// Returns the text if it may stand between two '/' of a topic.
std::string ParseLevelName(const std::string& text);
