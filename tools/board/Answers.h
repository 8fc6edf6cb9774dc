// What the board's answers to requests have in common.
#pragma once

#include <cstdint>
#include <string>

#include "tools/board/History.h"
#include "tools/board/Http.h"

// {"error": reason}
HttpResponse Fail(unsigned status, const std::string& reason);

// For a search that the history does not answer.
HttpResponse Unreadable(const History& history);

// JSON that no cache keeps.
HttpResponse Answer(std::string body);

// A number in the query, which may be absent. Throws std::invalid_argument for other texts.
int64_t NumberField(const HttpRequest& request, const char* name, int64_t otherwise);

// A table for spreadsheets: who asks for one with format=csv or by its type gets it as a file.
bool WantsCsv(const HttpRequest& request);
HttpResponse CsvAnswer(std::string table, const std::string& file);
// A text in it. Spreadsheets read those that begin with = + - @ as formulas.
std::string CsvText(const std::string& text);
