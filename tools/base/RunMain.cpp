#include "tools/base/RunMain.h"

#include <cstdio>
#include <exception>

#include "tools/base/Journal.h"

int RunMain(const char* name, const std::function<int()>& program) {
    MarkErrors();
    try {
        return program();
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", name, error.what());
        return 1;
    }
}
