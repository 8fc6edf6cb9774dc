#include "tools/board/UsersFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "tools/base/ConfigFile.h"
#include "tools/base/Descriptor.h"
#include "tools/base/ErrorText.h"
#include "tools/base/OpenText.h"
#include "tools/base/ReplaceFile.h"
#include "tools/board/Secret.h"

namespace {

const size_t MAX_NAME = 40;
const char* const GUEST = "guest";
const char* const HEAD = "# Who may do what on the board, see orvex-board(8).\n";

using Kind = UserEntry::Kind;

UserEntry ReadEntry(const ConfigLine& line) {
    ConfigWords words(line.words);
    UserEntry entry;
    const std::string& what = line.words[0];
    if (what == "user" || what == "token") {
        entry.kind = what == "user" ? Kind::User : Kind::Token;
        entry.name = words.Next("a name");
        CheckUserName(entry.name);
        entry.hash = words.Next("a hash");
        const bool is_hash = entry.kind == Kind::User ? IsPasswordHash(entry.hash)
                                                      : entry.hash.size() == HashToken("").size();
        if (!is_hash) {
            throw std::invalid_argument("not a hash of a password or token");
        }
    } else if (what != GUEST) {
        throw std::invalid_argument("not user, token or guest: " + what);
    }
    while (!words.IsAtEnd()) {
        entry.rights.Add(words.Next("a right"));
    }
    return entry;
}

std::string LineOf(const UserEntry& entry) {
    const std::string rights = entry.rights.Text();
    const std::string who =
        entry.kind == Kind::Guest
            ? GUEST
            : (entry.kind == Kind::User ? "user " : "token ") + entry.name + " " + entry.hash;
    return who + (rights.empty() ? "" : " ") + rights;
}

// Whether a line of the file is the entry of that name, which for guests is "guest".
bool IsEntryOf(const std::string& line, const std::string& name) {
    const size_t begin = std::min(line.find_first_not_of(" \t"), line.size());
    const size_t end = std::min(line.find_first_of(" \t", begin), line.size());
    const std::string what = line.substr(begin, end - begin);
    if (what == GUEST) {
        return name == GUEST;
    }
    const size_t next = std::min(line.find_first_not_of(" \t", end), line.size());
    return (what == "user" || what == "token") &&
           line.substr(next, line.find_first_of(" \t", next) - next) == name;
}

[[noreturn]] void Throw(const std::string& file) {
    throw std::runtime_error(file + ": " + ErrorText(errno));
}

// Two who change the file do so one after the other: the lock ends with the descriptor.
Descriptor Lock(const std::string& file) {
    Descriptor folder(open(FolderOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.IsOpen() || flock(folder.Get(), LOCK_EX) != 0) {
        Throw(file);
    }
    return folder;
}

void Replace(const std::string& file, const std::string& text) {
    const std::string failure = ReplaceFile(file, text, Lasts::Always);
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
}

// Passes each line of the file that is not the entry of that name on. Returns whether there was
// one.
bool KeepOthers(const std::string& file, const std::string& name, std::string& text) {
    std::ifstream in = OpenText(file);
    if (!in && errno != ENOENT) {
        Throw(file);
    }
    text = in ? "" : HEAD;
    bool found = false;
    std::string line;
    while (std::getline(in, line)) {
        const bool is_it = IsEntryOf(line, name);
        text += is_it ? "" : line + "\n";
        found = found || is_it;
    }
    return found;
}

}  // namespace

std::vector<UserEntry> ReadUsers(const std::string& file) {
    CheckPrivate(file, "the users");
    std::vector<UserEntry> entries;
    ConfigErrors errors(file);
    for (const ConfigLine& line : ReadConfigLines(file)) {
        errors.Try(line.number, [&] {
            entries.push_back(ReadEntry(line));
            const UserEntry& last = entries.back();
            if (std::any_of(entries.begin(), entries.end() - 1,
                            [&](const UserEntry& other) { return other.name == last.name; })) {
                throw std::invalid_argument("there is another entry of that name: " + last.name);
            }
        });
    }
    errors.ThrowIfAny();
    return entries;
}

void StoreUser(const std::string& file, const UserEntry& entry) {
    const Descriptor lock = Lock(file);
    std::string text;
    KeepOthers(file, entry.kind == Kind::Guest ? GUEST : entry.name, text);
    Replace(file, text + LineOf(entry) + "\n");
}

bool RemoveUser(const std::string& file, const std::string& name) {
    const Descriptor lock = Lock(file);
    std::string text;
    const bool found = KeepOthers(file, name, text);
    if (found) {
        Replace(file, text);
    }
    return found;
}

void CheckUserName(const std::string& name) {
    const bool bad = name.empty() || name.size() > MAX_NAME || name[0] == '-' || name[0] == '#' ||
                     name == GUEST || std::any_of(name.begin(), name.end(), [](unsigned char c) {
                         return c <= ' ' || c == 127 || c == '"' || c == '\\';
                     });
    if (bad) {
        throw std::invalid_argument(
            "not a name of a user (up to 40 characters, no blanks, not guest): " + name);
    }
}

void CheckPrivate(const std::string& file, const std::string& what) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) {
        throw std::runtime_error(file + ": " + ErrorText(errno));
    }
    if ((status.st_mode & S_IROTH) != 0) {
        throw std::runtime_error(file + ": everyone may read " + what + " (chmod o-r)");
    }
}
