// Reads words of the command line into the options. All throw std::invalid_argument with the
// reason.
#pragma once

#include <string>

struct Options;

// For seconds, counts and the like.
double ParseSeconds(const std::string& text, double max);
unsigned long ParseCount(const std::string& text, unsigned long max, const char* what);

// Options of the link.
void SetGroup(Options& options, const std::string& text);
void SetPorts(Options& options, const std::string& text);
void SetHost(Options& options, const std::string& text);
void SetWait(Options& options, const std::string& text);
void SetServer(Options& options, const std::string& text);

// Options of commands.
void SetCount(Options& options, const std::string& text);
void SetLimit(Options& options, const std::string& text);
void SetHold(Options& options, const std::string& text);
void SetRunLimit(Options& options, const std::string& text);
void SetParallel(Options& options, const std::string& text);
void SetTimeout(Options& options, const std::string& text);
void SetHeartbeat(Options& options, const std::string& text);
void SetInputs(Options& options, const std::string& text);
void SetMaxSize(Options& options, const std::string& text);
void SetKeep(Options& options, const std::string& text);
void SetSpeed(Options& options, const std::string& text);
void SetFormat(Options& options, const std::string& text);

// Arguments.
void AddPins(Options& options, const std::string& text);
void AddWrite(Options& options, const std::string& text);
void AddCondition(Options& options, const std::string& text);
void AddCommandWord(Options& options, const std::string& text);
void SetRange(Options& options, const std::string& text);
void SetRole(Options& options, const std::string& text);
void SetInput(Options& options, const std::string& text);
void SetFile(Options& options, const std::string& text);
void SetRecording(Options& options, const std::string& text);
