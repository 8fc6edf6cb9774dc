#include "tools/board/UserCommand.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "tools/board/Secret.h"
#include "tools/board/UsersFile.h"

namespace {

const char* const GUEST = "guest";

// Switches the terminal's echo off, while it exists.
class Silence {
public:
    Silence() : m_is_terminal(tcgetattr(STDIN_FILENO, &m_before) == 0) {
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (m_is_terminal) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        }
    }
    ~Silence() {
        if (m_is_terminal) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before);
        }
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

    bool IsTerminal() const { return m_is_terminal; }

private:
    termios m_before = {};
    const bool m_is_terminal;
};

std::string AskLine(const char* question) {
    fputs(question, stderr);
    std::string line;
    std::getline(std::cin, line);
    fputs(*question != '\0' ? "\n" : "", stderr);
    return line;
}

// From a terminal, which does not show it, twice; or else the first line of the input.
std::string AskPassword(const std::string& name) {
    const Silence silence;
    const std::string question = "Password of " + name + ": ";
    std::string password = AskLine(silence.IsTerminal() ? question.c_str() : "");
    if (password.size() < MIN_PASSWORD || password.size() > MAX_PASSWORD) {
        throw std::runtime_error("a password has 8 to 256 bytes");
    }
    if (silence.IsTerminal() && AskLine("The same again: ") != password) {
        throw std::runtime_error("the two passwords are not the same");
    }
    return password;
}

int Add(const UserOptions& options) {
    UserEntry entry;
    for (const std::string& right : options.rights) {
        entry.rights.Add(right);
    }
    if (options.name != GUEST) {
        CheckUserName(options.name);
        entry.name = options.name;
        entry.kind = options.token ? UserEntry::Kind::Token : UserEntry::Kind::User;
        const std::string token = options.token ? MakeToken() : "";
        entry.hash = options.token ? HashToken(token) : HashPassword(AskPassword(options.name));
        StoreUser(options.file, entry);
        if (options.token) {
            puts(token.c_str());
        }
    } else {
        StoreUser(options.file, entry);
    }
    fprintf(stderr, "%s may: %s. A board that runs reads it at SIGHUP.\n", options.name.c_str(),
            options.rights.empty() ? "nothing" : entry.rights.Text().c_str());
    return 0;
}

int List(const UserOptions& options) {
    for (const UserEntry& entry : ReadUsers(options.file)) {
        const char* const kind = entry.kind == UserEntry::Kind::User    ? "user"
                                 : entry.kind == UserEntry::Kind::Token ? "token"
                                                                        : GUEST;
        printf("%-6s %-20s %s\n", kind, entry.name.c_str(), entry.rights.Text().c_str());
    }
    return 0;
}

int Remove(const UserOptions& options) {
    if (!RemoveUser(options.file, options.name)) {
        throw std::runtime_error(options.file + ": there is no " + options.name);
    }
    fprintf(stderr, "%s is removed. A board that runs reads it at SIGHUP.\n", options.name.c_str());
    return 0;
}

}  // namespace

int RunUserCommand(const UserOptions& options) {
    if (options.action == "list") {
        return List(options);
    }
    if (options.name.empty()) {
        throw std::runtime_error("a name is needed");
    }
    return options.action == "add" ? Add(options) : Remove(options);
}
