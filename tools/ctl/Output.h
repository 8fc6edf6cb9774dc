// Where commands write messages to.
#pragma once

#include <cstdio>
#include <string>

#include "tools/bus/Traffic.h"

// A file or standard output. Each message is there as soon as it was written. Failures are thrown
// as a Failure.
class Output {
public:
    enum class Form { Json, Text, FullText };

    // To the file, which is overwritten; "-" is standard output.
    Output(const std::string& file, Form form);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void Write(const Traffic& traffic);
    void Write(const std::string& text);

private:
    const std::string m_name;
    const Form m_form;
    FILE* m_file;
};
