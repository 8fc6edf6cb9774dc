// Runs a program that throws its failures.
#pragma once

#include <functional>
#include <string>

// Exit statuses.
const int STATUS_FAILED = 1;
const int STATUS_USAGE = 2;

// Runs the program and returns its exit status. An exception ends it with STATUS_FAILED and its
// text on standard error, as PrintError() prints it. In the journal of systemd, what the program
// writes to standard error is marked as errors; see MarkErrors().
int RunMain(const char* name, const std::function<int()>& program);

// Prints each line of the text on standard error, after the name of the program.
void PrintError(const char* name, const std::string& text);
