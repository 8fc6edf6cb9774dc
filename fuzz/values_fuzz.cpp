// The library of values. The parts of the input are a line, changes for it and a key.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/Check.h"
#include "fuzz/Script.h"
#include "tqr/tqr_util.h"

namespace {

// The line with every quote, and every quoted or escaped character, replaced by 'x': the separators
// that remain are those that count.
std::string bare(const std::string& line) {
    std::string result;
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const bool escape = line[i] == '\\' && i + 1 < line.size();
        quoted = quoted != (line[i] == '"');
        result += quoted || escape || line[i] == '"' ? 'x' : line[i];
        if (escape) {
            result += 'x';
            ++i;
        }
    }
    return result;
}

std::vector<size_t> field_starts(const std::string& line) {
    const std::string plain = bare(line);
    std::vector<size_t> starts;
    if (!plain.empty()) {
        starts.push_back(0);  // the first field may be empty
    }
    for (size_t i = plain.find_first_of(" ,"); i != std::string::npos;
         i = plain.find_first_of(" ,", i)) {
        i = plain.find_first_not_of(" ,", i);
        if (i != std::string::npos) {
            starts.push_back(i);
        }
    }
    return starts;
}

std::string copy(const char* value, int size) {
    const std::unique_ptr<char[]> block(new char[static_cast<size_t>(size)]);
    tqr_copyval(block.get(), value, size);
    return block.get();
}

void check_value(const char* value) {
    const int room = static_cast<int>(strlen(value)) + 1;
    const std::string whole = copy(value, room);
    const int length = tqr_vallen(value);
    CHECK(static_cast<size_t>(length) <= whole.size());
    CHECK(strpbrk(value, "\r\n") != nullptr || static_cast<size_t>(length) == whole.size());
    CHECK(copy(value, length + 1) == whole.substr(0, static_cast<size_t>(length)));
    CHECK(copy(value, 1).empty());
    char* const duplicate = tqr_valdup(value);
    CHECK((duplicate == nullptr) == (length == 0));
    CHECK(duplicate == nullptr || duplicate == copy(value, length + 1));
    free(duplicate);
    const long number = tqr_vall(value);
    CHECK(number >= INT32_MIN && number <= INT32_MAX);
    unsigned short port = 1;
    CHECK(tq_url2ip(value, &port) == tq_url2ip(value, nullptr));
}

void check_escape(const std::string& text) {
    for (const size_t size : {size_t(1), text.size() / 2 + 1, text.size() * 2 + 1}) {
        const std::unique_ptr<char[]> block(new char[size]);
        const int length = tqr_escape(block.get(), static_cast<int>(size), text.c_str());
        CHECK(strlen(block.get()) == static_cast<size_t>(length));
        if (size > text.size() * 2 && text.find('\\') == std::string::npos) {
            CHECK(copy(("\"" + std::string(block.get()) + "\"").c_str(),
                       static_cast<int>(size) + 1) == text);
        }
    }
}

void check_alter(const char* base, const char* changes) {
    const char* some[] = {"SRCA", "B", nullptr};
    const std::unique_ptr<char[]> out(new char[(strlen(base) + 2) * (strlen(changes) + 2)]);
    for (const char** allowed : {static_cast<const char**>(nullptr), some}) {
        char* const end = tqr_alter_str(out.get(), base, changes, allowed);
        CHECK(end == out.get() + strlen(out.get()));
        CHECK(*tqr_alter_str(out.get(), nullptr, changes, allowed) == '\0');
        CHECK(tqr_alter_str(out.get(), base, nullptr, allowed) == out.get() + strlen(base));
        CHECK(strcmp(out.get(), base) == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> parts = split_script(data, size);
    parts.resize(3);
    const std::string line = parts[0].c_str();  // up to a NUL
    const char* p = line.c_str();
    for (const size_t start : field_starts(line)) {
        CHECK(p == line.c_str() + start);
        check_value(p);
        tqr_nextval(p);
    }
    CHECK(*p == '\0');
    const std::string key = parts[2].c_str();
    const char* const value = tqr_findval(line.c_str(), key.c_str());
    const char* const field = tqr_findtag(line.c_str(), key.c_str(), static_cast<int>(key.size()));
    CHECK(value == (field == nullptr ? nullptr : field + key.size() + 1));
    CHECK(field == nullptr || std::string(field).compare(0, key.size(), key) == 0);
    check_escape(line);
    check_alter(line.c_str(), parts[1].c_str());
    return 0;
}
