#include "tools/ctl/Rotation.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "tools/base/ErrorText.h"
#include "tools/ctl/ExitStatus.h"

namespace {

std::string Numbered(const std::string& file, unsigned long number) {
    return number == 0 ? file : file + "." + std::to_string(number);
}

bool Exists(const std::string& file) {
    return access(file.c_str(), F_OK) == 0;
}

}  // namespace

void PutAside(const std::string& file, unsigned long keep) {
    if (!Exists(file)) {
        return;  // another program has done it
    }
    for (unsigned long number = keep; number > 0; --number) {
        const std::string to = Numbered(file, number);
        if (rename(Numbered(file, number - 1).c_str(), to.c_str()) != 0 && errno != ENOENT) {
            throw Failure(STATUS_FAILED, "can't write " + to + ": " + ErrorText(errno));
        }
    }
}

std::vector<std::string> OldestFirst(const std::string& file) {
    std::vector<std::string> files = {file};
    while (Exists(Numbered(file, files.size()))) {
        files.push_back(Numbered(file, files.size()));
    }
    std::reverse(files.begin(), files.end());
    return files;
}
