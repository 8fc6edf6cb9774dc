// For the memory sanitizer. Debian's C++ library is not instrumented, so whatever it writes counts
// as uninitialized. These are the only functions used here that are in the library and not in its
// headers.
#include <charconv>
#include <cstdio>
#include <string>

namespace {

template <typename Number>
std::string Print(const char* format, Number number) {
    char text[24];
    snprintf(text, sizeof text, format, number);
    return text;
}

}  // namespace

// In place of the library's own. NOLINTBEGIN(cert-dcl58-cpp)
_LIBCPP_BEGIN_NAMESPACE_STD
string to_string(int number) {
    return Print("%d", number);
}
string to_string(unsigned int number) {
    return Print("%u", number);
}
string to_string(long number) {
    return Print("%ld", number);
}
string to_string(unsigned long number) {
    return Print("%lu", number);
}

// What std::to_chars calls. They return the end of the text.
namespace __itoa {
char* __u32toa(uint32_t number, char* text) noexcept {
    return __u64toa(number, text);
}
char* __u64toa(uint64_t number, char* text) noexcept {
    const string digits = to_string(static_cast<unsigned long>(number));
    return text + digits.copy(text, digits.size());
}
}  // namespace __itoa
_LIBCPP_END_NAMESPACE_STD
// NOLINTEND(cert-dcl58-cpp)
