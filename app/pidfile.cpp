#include "app/pidfile.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace {

const int PATH_SIZE = 32;

void make_pid_file_name(char* buf, int size, const char* name) {
    const char* slash = strrchr(name, '/');
    const char* base = slash == nullptr ? name : slash + 1;
    snprintf(buf, static_cast<size_t>(size), "/var/run/%s.pid", base);
}

}  // namespace

void create_pid_file(const char* name) {
    char path[PATH_SIZE];
    make_pid_file_name(path, sizeof path, name);
    FILE* file = fopen(path, "wt");
    if (file == nullptr) {
        return;
    }
    fprintf(file, "%d\n", getpid());
    fclose(file);
}

int remove_pid_file(const char* name) {
    char path[PATH_SIZE];
    make_pid_file_name(path, sizeof path, name);
    return remove(path);
}
