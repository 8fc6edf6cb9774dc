#include "tools/ctl/Output.h"

#include <cerrno>
#include <cstring>

#include "tools/bus/MessageJson.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/MessageText.h"

namespace {

[[noreturn]] void Fail(const std::string& name) {
    throw Failure(STATUS_FAILED, "can't write " + name + ": " + strerror(errno));
}

}  // namespace

Output::Output(const std::string& file, Form form)
    : m_name(file == "-" ? "standard output" : file),
      m_form(form),
      m_file(file == "-" ? stdout : fopen(file.c_str(), "we")) {
    if (m_file == nullptr) {
        Fail(m_name);
    }
}

Output::~Output() {
    if (m_file != stdout) {
        fclose(m_file);
    }
}

void Output::Write(const Traffic& traffic) {
    Write(m_form == Form::Json ? ToJson(traffic) + "\n"
                               : ToText(traffic, m_form == Form::FullText));
}

void Output::Write(const std::string& text) {
    if (fwrite(text.data(), 1, text.size(), m_file) != text.size() || fflush(m_file) != 0) {
        Fail(m_name);
    }
}
