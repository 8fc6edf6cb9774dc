#include "tools/board/Answers.h"

#include <charconv>
#include <stdexcept>

#include "tools/board/Json.h"

HttpResponse Fail(unsigned status, const std::string& reason) {
    HttpResponse response;
    response.status = status;
    response.body = Dump({{"error", reason}}) + "\n";
    return response;
}

HttpResponse Unreadable(const History& history) {
    const std::string& problem = history.Problem();
    return Fail(503,
                "the history can't be read: " + (problem.empty() ? history.Notice() : problem));
}

HttpResponse Answer(std::string body) {
    HttpResponse response;
    response.body = std::move(body);
    response.headers.emplace_back("Cache-Control", "no-store");
    return response;
}

int64_t NumberField(const HttpRequest& request, const char* name, int64_t otherwise) {
    const std::string text = request.Field(name).value_or("");
    if (text.empty()) {
        return otherwise;
    }
    int64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() || number < 0) {
        throw std::invalid_argument(std::string(name) + " is not a number");
    }
    return number;
}

std::string CsvText(const std::string& text) {
    std::string quoted = "\"";
    if (!text.empty() && std::string("=+-@\t\r").find(text[0]) != std::string::npos) {
        quoted += '\'';
    }
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

bool WantsCsv(const HttpRequest& request) {
    return request.Field("format").value_or("") == "csv" ||
           request.Header("accept").compare(0, 8, "text/csv") == 0;
}

HttpResponse CsvAnswer(std::string table, const std::string& file) {
    HttpResponse response = Answer(std::move(table));
    response.type = "text/csv; charset=utf-8; header=present";
    response.headers.emplace_back("Content-Disposition", "attachment; filename=" + file);
    return response;
}
