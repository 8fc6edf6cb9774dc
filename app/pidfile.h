// The file with the process id for start-up scripts: /var/run/<program>.pid.
#pragma once

// name is the program's invocation name; the part up to its last '/' is ignored. The path is
// truncated to 31 characters, so a program name of more than 18 loses part or all of ".pid".

// Writes the id of this process and a newline, replacing an older file. A file that can't be
// created is skipped silently: the daemon works without it.
void create_pid_file(const char* name);

// Deletes the file. Returns 0, or -1 with errno set. The daemon itself leaves its file in place.
int remove_pid_file(const char* name);
