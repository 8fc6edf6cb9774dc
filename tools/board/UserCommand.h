// "orvex-board user": who may use a board.
#pragma once

#include <string>
#include <vector>

struct UserOptions {
    std::string file;
    std::string action;  // add, list or remove; empty: the board shall run
    std::string name;
    std::vector<std::string> rights;
    bool token = false;
};

// Returns an exit status. Throws std::exception.
int RunUserCommand(const UserOptions& options);
