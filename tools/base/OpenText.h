// Opens files that people write.
#pragma once

#include <fstream>
#include <string>

// Opens a file to read it. What is no regular file is refused, because a program would wait for a
// FIFO until somebody writes into it; only /dev/null is as good as an empty file. If it can't be
// opened, the stream has failed and errno tells why.
std::ifstream OpenText(const std::string& file);
