// The commands. They return the exit status or throw a Failure.
#pragma once

struct Options;

int RunGet(const Options& options);
int RunSet(const Options& options);
int RunWatch(const Options& options);  // with a file: record
int RunSend(const Options& options);
int RunChannels(const Options& options);
int RunDoctor(const Options& options);
