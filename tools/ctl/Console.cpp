#include "tools/ctl/Console.h"

#include <cstdio>

void Console::Error(const std::string& text) const {
    fprintf(stderr, "%s: %s\n", APP_NAME, text.c_str());
}

void Console::Note(const std::string& text) const {
    if (!quiet) {
        Error(text);
    }
}

void Console::Detail(const std::string& text) const {
    if (verbose) {
        Error(text);
    }
}
