// Shared by writing and reading of the JSON form.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

class Names;

// Keeps the order of fields.
using Json = nlohmann::ordered_json;

// "byte" for CMsg2::ITEM_BYTE and so on; null for the others.
const char* const TYPE_NAMES[] = {nullptr,  "dword",   "string", "bytes", "words",
                                  "dwords", "message", "byte",   "word",  "qword"};
const int TYPE_NAME_COUNT = 10;

// Levels of nested messages that are written and read.
const int MAX_DEPTH = 32;

// As one line, with everything but printable ASCII escaped: safe on any terminal. No text makes
// this throw.
std::string Dump(const Json& json);

// Adds "name" and "text" if the pin has them.
void PutNames(Json& json, uint32_t tag, const Names& names);
