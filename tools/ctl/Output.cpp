#include "tools/ctl/Output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "tools/base/ErrorText.h"
#include "tools/base/Time.h"
#include "tools/bus/Answerers.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/MessageJson.h"
#include "tools/ctl/ChangeText.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/MessageText.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Rotation.h"

namespace {

const unsigned long DEFAULT_KEEP = 9;

[[noreturn]] void Fail(const std::string& name) {
    throw Failure(STATUS_FAILED, "can't write " + name + ": " + ErrorText(errno));
}

Output::Form FormOf(const Options& options, bool recording) {
    if (options.json || recording) {
        return Output::Form::Json;
    }
    return options.console.verbose ? Output::Form::FullText : Output::Form::Text;
}

// Existing devices and pipes are written to; only files are refused.
FILE* Open(const std::string& file, bool force) {
    struct stat status = {};
    const bool is_kept = stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (is_kept && !force) {
        throw Failure(STATUS_FAILED, file + " exists; --force overwrites it");
    }
    return fopen(file.c_str(), "we");
}

bool IsFile(FILE* file) {
    struct stat status = {};
    return fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
}

// SIZE_MAX if it is no terminal.
size_t TerminalWidth(FILE* file) {
    winsize size = {};
    return ioctl(fileno(file), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : SIZE_MAX;
}

}  // namespace

Output::Output(const Options& options)
    : m_options(options),
      m_name("standard output"),
      m_form(FormOf(options, false)),
      m_file(stdout) {}

Output::Output(const Options& options, const std::string& file)
    : m_options(options),
      m_name(file == "-" ? "standard output" : file),
      m_form(FormOf(options, true)),
      m_file(file == "-" ? stdout : Open(file, options.force)) {
    if (m_file == nullptr) {
        Fail(m_name);
    }
}

Output::~Output() {
    if (m_file != nullptr && m_file != stdout) {
        fclose(m_file);
    }
}

void Output::Write(const Traffic& traffic, const std::function<bool(uint32_t tag)>& wanted) {
    const TextForm form = {m_options.names, m_form == Form::FullText, wanted};
    Write(IsJson() ? ToJson(traffic, m_options.names) + "\n" : ToText(traffic, form));
}

void Output::Write(const std::vector<PinFact>& facts) {
    size_t width = 0;
    for (const PinFact& fact : facts) {
        width = std::max(width, PinText(fact.tag).size());
    }
    for (const PinFact& fact : facts) {
        if (IsJson()) {
            Write(ToJson(fact, m_options.names) + "\n");
        } else if (fact.level) {
            const std::string name = m_options.names.NameOf(fact.tag);
            Write(Padded(PinText(fact.tag), width) + "  " + LevelText(fact.level) +
                  (name.empty() ? "" : "  " + name) + "\n");
        }
    }
}

void Output::Write(const PinChange& change) {
    if (IsJson()) {
        Write(ToJson(change, m_options.names) + "\n");
    } else {
        Write(m_options.format ? m_options.format->Text(change, m_options.names)
                               : ToText(change, m_options.names));
    }
}

void Output::WriteEvent(const std::string& event, const std::string& text) {
    const double time = TimeOfDay();
    Write(IsJson() ? Dump({{"time", time}, {"event", event}, {"text", text}}) + "\n"
                   : TimeText(time) + "  " + text + "\n");
}

void Output::WriteLine(const std::string& text, size_t indent) {
    const size_t width = TerminalWidth(m_file);
    std::string line = text;
    while (line.size() > width) {
        const size_t blank = line.rfind(' ', width);
        if (blank == std::string::npos || blank <= indent) {
            break;  // a word that is too long
        }
        Write(line.substr(0, blank) + "\n");
        line = std::string(indent, ' ') + line.substr(blank + 1);
    }
    Write(line + "\n");
}

void Output::Rotate() {
    if (!IsFile(m_file)) {
        return;
    }
    PutAside(m_name, m_options.keep.value_or(DEFAULT_KEEP));
    m_size = 0;
    m_file = freopen(m_name.c_str(), "we", m_file);
    if (m_file == nullptr) {
        Fail(m_name);
    }
}

void Output::Write(const std::string& text) {
    if (m_options.max_size && m_size > 0 && m_size + text.size() > *m_options.max_size) {
        Rotate();
    }
    m_size += text.size();
    if (fwrite(text.data(), 1, text.size(), m_file) != text.size() || fflush(m_file) != 0) {
        Fail(m_name);
    }
}

void NoteShared(const std::map<uint32_t, std::set<uint32_t>>& shared, const Options& options) {
    for (const auto& [address, hosts] : shared) {
        options.console.Note(SharedText(address, hosts, options.names));
    }
}
