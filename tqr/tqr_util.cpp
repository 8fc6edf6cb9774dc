#include "tqr/tqr_util.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const unsigned short DEFAULT_URL_PORT = 5004;
const uint32_t URL_GROUP = 0xEFC00000;  // 239.192.0.0, completed by a 16-bit number

bool is_separator(char c) {
    return c == ' ' || c == ',';
}

bool is_line_end(char c) {
    return c == '\r' || c == '\n';
}

bool is_assignment(char c) {
    return c == ':' || c == '=';
}

// A backslash before another character; at the end of the text it is an ordinary character.
bool is_escape(const char* p) {
    return p[0] == '\\' && p[1] != '\0';
}

// Steps through a field or a value. A double quote starts or ends quoting; a backslash takes the
// next character literally.
struct Scanner {
    const char* p;
    bool quoted = false;

    bool at_end() const { return *p == '\0' || (!quoted && is_separator(*p)); }

    // Moves past the current character. Returns the character it stands for; NUL for a quote.
    char next() {
        if (is_escape(p)) {
            p += 2;
            return p[-1];
        }
        if (*p == '"') {
            quoted = !quoted;
            ++p;
            return '\0';
        }
        return *p++;
    }
};

// The base that 0 means on the device: newer C libraries also accept "0b1".
int base_of(const char* number) {
    while (isspace(static_cast<unsigned char>(*number)) != 0) {
        ++number;
    }
    if (*number == '+' || *number == '-') {
        ++number;
    }
    if (*number != '0') {
        return 10;
    }
    return number[1] == 'x' || number[1] == 'X' ? 16 : 8;
}

int tag_length(const char* field) {
    return static_cast<int>(strcspn(field, ":="));
}

// A tag may be added if an entry begins with it; without a list, always.
bool is_addition_allowed(const char** allowed, const char* tag, int len) {
    if (allowed == nullptr) {
        return true;
    }
    for (; *allowed != nullptr; ++allowed) {
        if (strncmp(*allowed, tag, static_cast<size_t>(len)) == 0) {
            return true;
        }
    }
    return false;
}

// The replacement pass of tqr_alter_str; returns the position after its output.
char* replace_fields(char* w, const char* base, const char* changes) {
    while (*base != '\0') {
        const int len = tag_length(base);
        if (len > 0) {
            const char* change = tqr_findtag(changes, base, len);
            const char* source = change != nullptr && tqr_check_range(change) != 0 ? change : base;
            tqr_copyval(source, w);
        }
        tqr_nextval(base);
    }
    return w;
}

// Reads a decimal number of up to nine digits, which nearly all are, faster than strtol.
bool is_plain(const char* text, const char** end, long& number) {
    if (*text < '1' || *text > '9') {
        return false;  // of another base, signed, or none
    }
    const char* p = text;
    for (number = 0; *p >= '0' && *p <= '9'; ++p) {
        if (p - text == 9) {
            return false;
        }
        number = number * 10 + (*p - '0');
    }
    if (end != nullptr) {
        *end = p;
    }
    return true;
}

}  // namespace

long tqr_strtol(const char* text, const char** end, int base) {
    long number = 0;
    if ((base == 0 || base == 10) && is_plain(text, end, number)) {
        return number;
    }
    char* behind = nullptr;
    const long long value = strtoll(text, &behind, base == 0 ? base_of(text) : base);
    if (end != nullptr) {
        *end = behind;
    }
    if (value > INT32_MAX) {
        return INT32_MAX;
    }
    return value < INT32_MIN ? INT32_MIN : static_cast<long>(value);
}

unsigned long tqr_strtoul(const char* text, const char** end, int base) {
    char* behind = nullptr;
    const unsigned long long value = strtoull(text, &behind, base == 0 ? base_of(text) : base);
    if (end != nullptr) {
        *end = behind;
    }
    // strtoull returns the two's complement of a negative number, or all ones if it is out of
    // range.
    while (isspace(static_cast<unsigned char>(*text)) != 0) {
        ++text;
    }
    const unsigned long long magnitude = *text == '-' && value != ULLONG_MAX ? 0 - value : value;
    return magnitude > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

void tqr_nextval(const char*& p) {
    Scanner scan{p};
    while (!scan.at_end()) {
        scan.next();
    }
    p = scan.p;
    while (is_separator(*p)) {
        ++p;
    }
}

void tqr_copyval(const char*& src, char*& dst) {
    Scanner scan{src};
    while (!scan.at_end()) {
        scan.next();
    }
    dst = std::copy(src, scan.p, dst);
    src = scan.p;
    *dst++ = ' ';
    *dst = '\0';
}

void tqr_copyval(char* dst, const char* src, int size) {
    if (dst == nullptr || size < 1) {
        return;
    }
    const char* const last = dst + size - 1;
    Scanner scan{src == nullptr ? "" : src};
    while (dst < last && !scan.at_end() && (scan.quoted || !is_line_end(*scan.p))) {
        const char c = scan.next();
        if (c != '\0') {
            *dst++ = c;
        }
    }
    *dst = '\0';
}

int tqr_vallen(const char* value) {
    int count = 0;
    Scanner scan{value == nullptr ? "" : value};
    while (!scan.at_end() && !is_line_end(*scan.p)) {
        count += scan.next() == '\0' ? 0 : 1;
    }
    return count;
}

int tqr_escape(char* dst, int size, const char* src) {
    if (dst == nullptr || size < 1) {
        return 0;
    }
    const char* const limit = dst + size - 1;
    char* w = dst;
    for (; src != nullptr && *src != '\0' && w < limit; ++src) {
        if (*src == '"') {
            if (limit - w < 2) {
                break;
            }
            *w++ = '\\';
        }
        *w++ = *src;
    }
    *w = '\0';
    return static_cast<int>(w - dst);
}

const char* tqr_findval(const char* line, const char* key) {
    if (key == nullptr) {
        return nullptr;
    }
    const int len = static_cast<int>(strlen(key));
    const char* field = tqr_findtag(line, key, len);
    return field == nullptr ? nullptr : field + len + 1;
}

const char* tqr_findtag(const char* line, const char* tag, int len) {
    if (line == nullptr) {
        return nullptr;
    }
    const size_t n = static_cast<size_t>(len);
    for (; *line != '\0'; tqr_nextval(line)) {
        if (strncmp(line, tag, n) == 0 && is_assignment(line[n])) {
            return line;
        }
    }
    return nullptr;
}

long tqr_vall(const char* value) {
    if (value == nullptr) {
        return 0;
    }
    return tqr_strtol(*value == '"' ? value + 1 : value, nullptr, 0);
}

char* tqr_valdup(const char* value) {
    const int len = tqr_vallen(value);
    if (len < 1) {
        return nullptr;
    }
    char* copy = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
    tqr_copyval(copy, value, len + 1);
    return copy;
}

unsigned long tq_url2ip(const char* url, unsigned short* port) {
    if (url == nullptr) {
        return 0;
    }
    if (*url == '"') {
        ++url;
    }
    if (strstr(url, "://") != nullptr) {
        if (strncmp(url, "tqs://", 6) != 0) {
            return 0;
        }
        url += 6;
    }
    const char* p = nullptr;
    uint32_t address = static_cast<uint32_t>(tqr_strtoul(url, &p, 0));
    if (address == 0) {
        return 0;
    }
    unsigned short number = DEFAULT_URL_PORT;
    if (*p != '.') {
        address = URL_GROUP | (address & 0xFFFF);
    } else {
        address &= 0xFF;
        for (int part = 1; part < 4; ++part) {
            if (*p != '.') {
                return 0;
            }
            address = address << 8 | (tqr_strtoul(p + 1, &p, 0) & 0xFF);
        }
        if (*p == ':') {
            number = static_cast<unsigned short>(tqr_strtoul(p + 1, nullptr, 0));
        }
    }
    if (port != nullptr) {
        *port = number;
    }
    return htonl(address);
}

int tqr_check_range(const char* field) {
    if (strncmp(field, "HWID:", 5) != 0) {
        return 1;
    }
    const long id = tqr_strtol(field + 5, nullptr, 10);
    return id >= 15 && id <= 32767 ? 1 : 0;
}

char* tqr_alter_str(char* out, const char* base, const char* changes, const char** allowed) {
    char* w = out;
    if (base != nullptr && changes != nullptr) {
        w = replace_fields(w, base, changes);
    } else if (base != nullptr) {
        const size_t len = strlen(base);
        memcpy(w, base, len);
        w += len;
        *w++ = ' ';
    }
    *w = '\0';
    while (changes != nullptr && *changes != '\0') {
        const int len = tag_length(changes);
        if (len > 0 && tqr_findtag(out, changes, len) == nullptr &&
            is_addition_allowed(allowed, changes, len)) {
            const char* field = changes;
            tqr_copyval(field, w);
        }
        tqr_nextval(changes);
    }
    if (w > out) {
        *--w = '\0';
    }
    return w;
}
