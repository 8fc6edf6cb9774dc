#include "tools/base/ReplaceFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include "tools/base/ErrorText.h"

std::string ReplaceFile(const std::string& file, const std::string& text, mode_t mode) {
    const std::string fresh = file + ".new";
    std::ofstream out(fresh);
    out << text;
    out.close();
    if (!out || chmod(fresh.c_str(), mode) != 0 || rename(fresh.c_str(), file.c_str()) != 0) {
        return "can't write " + file + ": " + ErrorText(errno);
    }
    return {};
}
