#include "tools/base/OpenText.h"

#include <sys/stat.h>

#include <cerrno>

namespace {

// 0, or why the file is not opened.
int Refusal(const std::string& file) {
    struct stat status = {};
    struct stat null = {};
    if (stat(file.c_str(), &status) != 0) {
        return errno;
    }
    const bool is_null =
        S_ISCHR(status.st_mode) && stat("/dev/null", &null) == 0 && status.st_rdev == null.st_rdev;
    if (S_ISREG(status.st_mode) || is_null) {
        return 0;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
}

}  // namespace

std::ifstream OpenText(const std::string& file) {
    std::ifstream stream;
    if (const int refusal = Refusal(file)) {
        stream.setstate(std::ios::failbit);
        errno = refusal;
    } else {
        stream.open(file);
    }
    return stream;
}
