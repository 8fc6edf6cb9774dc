#include "tools/base/RunMain.h"

#include <cstdio>
#include <exception>

int RunMain(const char* name, const std::function<int()>& program) {
    try {
        return program();
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", name, error.what());
        return 1;
    }
}
