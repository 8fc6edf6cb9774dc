// Preloaded into a program under test, makes one of its calls fail. The file /run/fault says which:
// "NAME N ERRNO" is the Nth call of NAME from then on. The file is removed when that call fails.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

namespace {

const char* const FAULT_FILE = "/run/fault";

bool ReadFault(char (&name)[32], int& nth, int& error) {
    const int fd = open(FAULT_FILE, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char text[64] = {};
    const ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    return got > 0 && sscanf(text, "%31s %d %d", name, &nth, &error) == 3;
}

// Whether this call must fail; sets errno if so, and leaves it unchanged otherwise.
bool IsDue(const char* call) {
    static bool reading = false;  // reading the file may call the same functions
    static int calls = 0;
    if (reading) {
        return false;
    }
    reading = true;
    const int before = errno;
    char name[32];
    int nth = 0;
    int error = before;
    bool due = false;
    if (!ReadFault(name, nth, error)) {
        calls = 0;
    } else if (strcmp(name, call) == 0 && ++calls == nth) {
        unlink(FAULT_FILE);
        due = true;
    }
    errno = due ? error : before;
    reading = false;
    return due;
}

}  // namespace

// The label gives the function its name for the linker; the compiler would insist on the exact
// declaration of the system's header.
// NOLINTBEGIN(bugprone-macro-parentheses): parameters are not an expression
#define INTERPOSE_AS(symbol, result, name, parameters, arguments, failure)                         \
    extern "C" result faulty_##name parameters __asm__(symbol);                                    \
    extern "C" result faulty_##name parameters {                                                   \
        if (IsDue(#name)) {                                                                        \
            return failure;                                                                        \
        }                                                                                          \
        static const auto next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, symbol)); \
        return next arguments;                                                                     \
    }
#define INTERPOSE(result, name, parameters, arguments, failure) \
    INTERPOSE_AS(#name, result, name, parameters, arguments, failure)

// With 64-bit times or file sizes on a 32-bit C library, these calls have other names.
#if defined(_TIME_BITS) && __WORDSIZE == 32
#define WIDE(name, wide_name) wide_name
#else
#define WIDE(name, wide_name) name
#endif
// NOLINTEND(bugprone-macro-parentheses)

INTERPOSE(int, daemon, (int a, int b), (a, b), -1)
INTERPOSE_AS(WIDE("fopen", "fopen64"), void*, fopen, (const char* a, const char* b), (a, b),
             nullptr)
INTERPOSE(void*, malloc, (size_t a), (a), nullptr)
INTERPOSE_AS(WIDE("ioctl", "__ioctl_time64"), int, ioctl, (int a, unsigned long b, void* c),
             (a, b, c), -1)
INTERPOSE_AS(WIDE("select", "__select64"), int, select, (int a, void* b, void* c, void* d, void* e),
             (a, b, c, d, e), -1)
INTERPOSE(int, socket, (int a, int b, int c), (a, b, c), -1)
INTERPOSE(int, bind, (int a, const void* b, unsigned int c), (a, b, c), -1)
INTERPOSE(int, connect, (int a, const void* b, unsigned int c), (a, b, c), -1)
INTERPOSE_AS(WIDE("getsockopt", "__getsockopt64"), int, getsockopt,
             (int a, int b, int c, void* d, unsigned int* e), (a, b, c, d, e), -1)
INTERPOSE_AS(WIDE("setsockopt", "__setsockopt64"), int, setsockopt,
             (int a, int b, int c, const void* d, unsigned int e), (a, b, c, d, e), -1)
INTERPOSE(ssize_t, send, (int a, const void* b, size_t c, int d), (a, b, c, d), -1)
INTERPOSE(ssize_t, sendto, (int a, const void* b, size_t c, int d, const void* e, unsigned int f),
          (a, b, c, d, e, f), -1)
INTERPOSE(ssize_t, recv, (int a, void* b, size_t c, int d), (a, b, c, d), -1)
INTERPOSE(ssize_t, recvfrom, (int a, void* b, size_t c, int d, void* e, unsigned int* f),
          (a, b, c, d, e, f), -1)

// A sanitizer's operator new does not call malloc.
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return IsDue("malloc") ? nullptr : operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return IsDue("malloc") ? nullptr : operator new[](size);
}
