// The program's own messages, on standard error.
#pragma once

#include <string>

const char* const APP_NAME = "orvexctl";

class Console {
public:
    bool quiet = false;    // no notes
    bool verbose = false;  // details too

    void Error(const std::string& text) const;   // why the program ends
    void Note(const std::string& text) const;    // what the user should know
    void Detail(const std::string& text) const;  // progress
};
