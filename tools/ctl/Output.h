// The output of commands: one writer for everything they print.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/bus/Names.h"
#include "tools/bus/PinJson.h"
#include "tools/bus/Traffic.h"

struct Options;

// A file or standard output, in the form selected by the options: JSON, one object per line, or
// text for people. Flushes after each write. Failures are thrown as a Failure.
class Output {
public:
    enum class Form { Json, Text, FullText };

    // To standard output, in the form selected by the options.
    explicit Output(const Options& options);

    // To the file; "-" is standard output. An existing file is refused unless the options force it.
    // A recording is JSON, and put aside when it has the size of the options.
    Output(const Options& options, const std::string& file);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool IsJson() const { return m_form == Form::Json; }

    // A message. As text, only the wanted pins; null: all.
    void Write(const Traffic& traffic, const std::function<bool(uint32_t tag)>& wanted = nullptr);

    // Pins in columns. Text omits pins without a level.
    void Write(const std::vector<PinFact>& facts);

    // A change, as text or in the form of --format.
    void Write(const PinChange& change);

    // An event that is no message: as JSON an object with that "event" and "text", as text the
    // text.
    void WriteEvent(const std::string& event, const std::string& text);

    void Write(const std::string& text);

    // Puts a recording aside and begins another file of its name. A device or a FIFO stays.
    void Rotate();

    // A line without its end. A terminal gets it wrapped between words, and continued at the
    // indent.
    void WriteLine(const std::string& text, size_t indent);

private:
    const Options& m_options;
    const std::string m_name;
    const Form m_form;
    FILE* m_file;  // null: could not be opened again
    uint64_t m_size = 0;
};

// Notes, on standard error, the addresses for which more than one host answers.
void NoteShared(const std::map<uint32_t, std::set<uint32_t>>& shared, const Options& options);
