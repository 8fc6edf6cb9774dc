#include "tools/base/ReplaceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/base/Descriptor.h"
#include "tools/base/ErrorText.h"

namespace {

// Only root may give files away.
bool KeepsOwner(int descriptor, const std::string& file) {
    struct stat status = {};
    return geteuid() != 0 ||
           (stat(file.c_str(), &status) != 0 && stat(FolderOf(file).c_str(), &status) != 0) ||
           fchown(descriptor, status.st_uid, status.st_gid) == 0;
}

bool WriteAll(int descriptor, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

}  // namespace

// Secrets are never in a file that others may read.
std::string ReplaceFile(const std::string& file, const std::string& text, Lasts lasts,
                        mode_t mode) {
    const std::string fresh = file + ".new";
    unlink(fresh.c_str());  // what a power failure left
    const Descriptor out(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const bool done = out.IsOpen() && KeepsOwner(out.Get(), file) && WriteAll(out.Get(), text) &&
                      fchmod(out.Get(), mode) == 0 &&
                      (lasts == Lasts::Briefly || fsync(out.Get()) == 0) &&
                      rename(fresh.c_str(), file.c_str()) == 0;
    if (done) {
        return {};
    }
    const int error = errno;
    unlink(fresh.c_str());
    return "can't write " + file + ": " + ErrorText(error);
}

std::string FolderOf(const std::string& file) {
    const size_t slash = file.rfind('/');
    return slash == file.npos ? "." : file.substr(0, slash + 1);
}
