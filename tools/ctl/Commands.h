// The commands. They return the exit status or throw a Failure.
#pragma once

struct Options;

int RunChannels(const Options& options);
int RunConform(const Options& options);
int RunDoctor(const Options& options);
int RunGet(const Options& options);
int RunList(const Options& options);
int RunOn(const Options& options);
int RunRecord(const Options& options);
int RunSend(const Options& options);
int RunSet(const Options& options);
int RunTop(const Options& options);
int RunWait(const Options& options);
int RunWatch(const Options& options);
