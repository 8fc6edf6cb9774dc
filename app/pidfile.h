// The file that tells start-up scripts the process id: /var/run/<program>.pid.
#pragma once

// name is the program's invocation name; what stands before its last '/' is left out. The path is
// cut to 31 characters, so a program name of more than 18 loses the end of ".pid" or all of it.

// Writes the id of this process and a newline, in place of an older file. A file that can't be
// created is skipped silently: the daemon is of use without it.
void create_pid_file(const char* name);

// Deletes the file. Returns 0, or -1 with errno set. The daemon itself leaves its file in place.
int remove_pid_file(const char* name);
