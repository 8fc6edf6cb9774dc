// Passwords, tokens, and what is stored of them.
#pragma once

#include <string>

// Longer ones are refused before they cost anything.
constexpr size_t MAX_PASSWORD = 256;
constexpr size_t MIN_PASSWORD = 8;

// What is stored of a password, with a salt of its own: takes tens of milliseconds and 16 MiB, so
// that guessing does. Throws std::runtime_error.
std::string HashPassword(const std::string& password);

// Whether it is that password. Takes as long as HashPassword() did. May be called by any thread.
bool IsPassword(const std::string& password, const std::string& hash);

// Whether this system can check passwords against it.
bool IsPasswordHash(const std::string& text);

// 43 characters that nobody guesses. Throws std::runtime_error.
std::string MakeToken();

// What is stored of a token: "sha256:" and 64 digits. Nobody guesses what is long and random, so
// that a fast hash is enough.
std::string HashToken(const std::string& token);

// Takes equally long for all texts of one length, however many characters are right.
bool IsSame(const std::string& a, const std::string& b);
