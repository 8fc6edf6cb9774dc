// The file of users and tokens, with their rights:
//
//     user  ann         $y$j9T$...     read set=studio1 edit
//     token prometheus  sha256:5e88... read
//     guest                            read=tower
//
// A guest is whoever has not logged in.
#pragma once

#include <string>
#include <vector>

#include "tools/board/Rights.h"

struct UserEntry {
    enum class Kind { User, Token, Guest };

    Kind kind = Kind::Guest;
    std::string name;  // of all users and tokens, no two have the same
    std::string hash;  // of the password, or of the token
    Rights rights;
};

// Throws ConfigError if the file can't be read, is readable by everyone, or has errors, of which it
// then names each with its line.
std::vector<UserEntry> ReadUsers(const std::string& file);

// Replaces the entry of that name, or adds it; other lines remain as they are. The file appears
// whole or not at all, belongs to whom it belonged before (a new one to the owner of its folder),
// and only they may read it. Throws std::runtime_error.
void StoreUser(const std::string& file, const UserEntry& entry);

// Returns whether there was an entry of that name.
bool RemoveUser(const std::string& file, const std::string& name);

// Throws std::invalid_argument if nobody may have that name.
void CheckUserName(const std::string& name);

// Throws std::runtime_error if the file does not exist or everyone may read it; what names it.
void CheckPrivate(const std::string& file, const std::string& what);
