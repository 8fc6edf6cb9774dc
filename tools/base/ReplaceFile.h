// Files that are read while they are written.
#pragma once

#include <sys/types.h>

#include <string>

enum class Lasts {
    Briefly,  // what is written anew after a power failure
    Always    // on the disk when the call returns
};

// Replaces the content of a file, or makes it, with that mode: a reader finds the old or the new
// content, also after a power failure if it lasts. The file belongs to whom it belonged before, or
// to the owner of its folder. Only one program at a time may do this to a file. Returns the reason
// if it fails, else an empty text.
std::string ReplaceFile(const std::string& file, const std::string& text, Lasts lasts,
                        mode_t mode = 0600);

// The folder of a file, with a slash at its end; "." for this one.
std::string FolderOf(const std::string& file);
