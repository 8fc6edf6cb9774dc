#include "tools/doctor/Processes.h"

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

std::string ReadLink(const fs::path& path) {
    std::error_code error;
    return fs::read_symlink(path, error).string();
}

// A program of another user hides its network namespace, and may be in ours. One that has ended but
// is still in the table has none.
bool IsInNetwork(const fs::path& folder, const std::string& network) {
    std::error_code error;
    const fs::path own = fs::read_symlink(folder / "ns/net", error);
    return error ? error != std::errc::no_such_file_or_directory &&
                       error != std::errc::no_such_process
                 : own == network;
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
        const std::string target = ReadLink(entry->path());
        if (target.compare(0, prefix.size(), prefix) == 0) {
            program.sockets.insert(strtoul(target.c_str() + prefix.size(), nullptr, 10));
        }
    }
}

// The 22nd field of the line; the second, the name, is in brackets and may contain anything.
unsigned long long StartTime(const std::string& stat) {
    std::istringstream fields(stat.substr(std::min(stat.rfind(')'), stat.size() - 1) + 1));
    std::string skipped;
    for (int field = 3; field < 22; ++field) {
        fields >> skipped;
    }
    unsigned long long ticks = 0;
    fields >> ticks;
    return ticks;
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
    const std::string network = ReadLink("/proc/self/ns/net");
    std::error_code error;
    fs::directory_iterator entry("/proc", error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const fs::path folder = entry->path();
        const std::string number = folder.filename().string();
        if (number.find_first_not_of("0123456789") != std::string::npos ||
            !IsInNetwork(folder, network)) {
            continue;
        }
        RunningProgram program;
        program.pid = static_cast<pid_t>(strtol(number.c_str(), nullptr, 10));
        program.name = ReadFile(folder / "comm");
        program.started = StartTime(ReadFile(folder / "stat") + "\n");
        program.name.erase(std::remove(program.name.begin(), program.name.end(), '\n'),
                           program.name.end());
        program.arguments = Split(ReadFile(folder / "cmdline"));
        program.environment = Split(ReadFile(folder / "environ"));
        ReadSocketsOf(folder, program);
        programs.push_back(std::move(program));
    }
    return programs;
}
