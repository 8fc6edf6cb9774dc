#include "tools/doctor/Processes.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// A number for the network namespace of a program; 0 for one that has ended but is still in the
// table. The link ns/net names the namespace too, but to its owner and root alone.
ino_t NetworkOf(const fs::path& folder) {
    struct stat table = {};
    return stat((folder / "net/udp").c_str(), &table) == 0 ? table.st_ino : 0;
}

// Texts that each end with a NUL.
std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; std::getline(in, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

void ReadSocketsOf(const fs::path& folder, RunningProgram& program) {
    std::error_code error;
    const std::string prefix = "socket:[";
    fs::directory_iterator entry(folder / "fd", error);
    program.shows_sockets = !error;
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::error_code link_error;
        const std::string target = fs::read_symlink(entry->path(), link_error).string();
        // Root without capabilities, as in a container, sees the list but not what is in it.
        if (link_error == std::errc::permission_denied) {
            program.shows_sockets = false;
        }
        if (target.compare(0, prefix.size(), prefix) == 0) {
            program.sockets.insert(strtoul(target.c_str() + prefix.size(), nullptr, 10));
        }
    }
}

// The third and the 22nd field of the line; the second, the name, is in brackets and may contain
// anything.
void ReadStat(const std::string& stat, RunningProgram& program) {
    std::istringstream fields(stat.substr(std::min(stat.rfind(')'), stat.size() - 1) + 1));
    std::string skipped;
    char state = 0;
    fields >> state;
    for (int field = 4; field < 22; ++field) {
        fields >> skipped;
    }
    fields >> program.started;
    program.is_stopped = state == 'T' || state == 't';
}

}  // namespace

std::string RunningProgram::Option(const std::string& option) const {
    std::string value;
    for (size_t i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == option) {
            value = arguments[i + 1];
        }
    }
    return value;
}

std::string RunningProgram::Variable(const std::string& variable) const {
    for (const std::string& entry : environment) {
        if (entry.compare(0, variable.size() + 1, variable + "=") == 0) {
            return entry.substr(variable.size() + 1);
        }
    }
    return {};
}

std::vector<RunningProgram> ReadPrograms() {
    std::vector<RunningProgram> programs;
    const ino_t own_network = NetworkOf("/proc/self");
    std::error_code error;
    fs::directory_iterator entry("/proc", error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const fs::path folder = entry->path();
        const std::string number = folder.filename().string();
        if (number.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const ino_t network = NetworkOf(folder);
        if (network == 0) {
            continue;
        }
        RunningProgram program;
        program.pid = static_cast<pid_t>(strtol(number.c_str(), nullptr, 10));
        program.is_elsewhere = network != own_network;
        program.name = ReadFile(folder / "comm");
        ReadStat(ReadFile(folder / "stat") + "\n", program);
        program.name.erase(std::remove(program.name.begin(), program.name.end(), '\n'),
                           program.name.end());
        program.arguments = Split(ReadFile(folder / "cmdline"));
        program.environment = Split(ReadFile(folder / "environ"));
        ReadSocketsOf(folder, program);
        programs.push_back(std::move(program));
    }
    return programs;
}

std::string ProcessText(const RunningProgram& program) {
    return program.name + ", process " + std::to_string(program.pid);
}
