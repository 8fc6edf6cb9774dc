#include "tools/base/RunMain.h"

#include <cstdio>
#include <exception>
#include <sstream>

#include "tools/base/Journal.h"

int RunMain(const char* name, const std::function<int()>& program) {
    MarkErrors();
    try {
        return program();
    } catch (const std::exception& error) {
        PrintError(name, error.what());
        return STATUS_FAILED;
    }
}

void PrintError(const char* name, const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        fprintf(stderr, "%s: %s\n", name, line.c_str());
    }
}
