// The system's texts for error numbers.
#pragma once

#include <string>

// The text for an errno value, in the language of the C library's messages.
std::string ErrorText(int error);
