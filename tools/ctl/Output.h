// Where commands write to: one writer for all that they print.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tools/bus/Names.h"
#include "tools/bus/PinJson.h"
#include "tools/bus/Traffic.h"

struct Options;

// A file or standard output, and the form that the options ask for: JSON, one object a line, or
// text for people. What is written is there at once. Failures are thrown as a Failure.
class Output {
public:
    enum class Form { Json, Text, FullText };

    // To standard output, in the form of the options.
    explicit Output(const Options& options);

    // To the file; "-" is standard output. A file that is there already is refused, unless the
    // options force it. A recording is JSON.
    Output(const Options& options, const std::string& file);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool IsJson() const { return m_form == Form::Json; }

    // A message. As text, only the pins that are wanted; null: all.
    void Write(const Traffic& traffic, const std::function<bool(uint32_t tag)>& wanted = nullptr);

    // Pins in columns. Text leaves out what has no level.
    void Write(const std::vector<PinFact>& facts);

    // A change, as text or in the form of --format.
    void Write(const PinChange& change);

    // What is no message: JSON an object with that "event" and "text", as text the text.
    void WriteEvent(const std::string& event, const std::string& text);

    void Write(const std::string& text);

private:
    const Options& m_options;
    const std::string m_name;
    const Form m_form;
    FILE* m_file;
};
