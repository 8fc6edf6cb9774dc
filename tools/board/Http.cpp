#include "tools/board/Http.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace {

// The first bytes of an address, "10.0.0.0/24". Another text remains as it is.
std::string Prefix(const std::string& address, int v4_bytes, int v6_bytes) {
    std::array<unsigned char, 16> bytes = {};
    char text[INET6_ADDRSTRLEN] = {};
    const bool v6 = inet_pton(AF_INET6, address.c_str(), bytes.data()) == 1;
    if (!v6 && inet_pton(AF_INET, address.c_str(), bytes.data()) != 1) {
        return address;
    }
    const int kept = v6 ? v6_bytes : v4_bytes;
    std::fill(bytes.begin() + kept, bytes.end(), static_cast<unsigned char>(0));
    inet_ntop(v6 ? AF_INET6 : AF_INET, bytes.data(), text, sizeof text);
    return std::string(text) + "/" + std::to_string(8 * kept);
}

int HexDigit(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

}  // namespace

std::string HttpRequest::CookieOf(const std::string& name) const {
    const std::string all = Header("cookie");
    for (size_t begin = 0; begin < all.size();) {
        const size_t end = std::min(all.find(';', begin), all.size());
        begin = std::min(all.find_first_not_of(' ', begin), end);
        if (all.compare(begin, name.size() + 1, name + "=") == 0) {
            return all.substr(begin + name.size() + 1, end - begin - name.size() - 1);
        }
        begin = end + 1;
    }
    return "";
}

HttpResponse Refuse(unsigned status, const std::string& reason) {
    HttpResponse response;
    response.status = status;
    response.type = "text/plain; charset=utf-8";
    response.body = reason + "\n";
    return response;
}

bool DecodeUrl(std::string_view text, std::string& decoded) {
    decoded.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i] == '+' ? ' ' : text[i];
        if (c == '%') {
            const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
            const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
            if (high < 0 || low < 0) {
                return false;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (c == '\0') {
            return false;
        }
        decoded.push_back(c);
    }
    return true;
}

std::string VisitorOf(const std::string& address) {
    return Prefix(address, 4, 8);
}

std::string NetworkOf(const std::string& address) {
    return Prefix(address, 3, 6);
}

bool ParseTarget(std::string_view target, HttpRequest& request) {
    const size_t mark = target.find('?');
    if (target.empty() || target[0] != '/' || !DecodeUrl(target.substr(0, mark), request.path)) {
        return false;
    }
    std::string_view rest = mark == target.npos ? std::string_view() : target.substr(mark + 1);
    while (!rest.empty()) {
        const std::string_view field = rest.substr(0, rest.find('&'));
        rest.remove_prefix(field.size() < rest.size() ? field.size() + 1 : rest.size());
        const size_t equals = field.find('=');
        std::string name;
        std::string value;
        if (!DecodeUrl(field.substr(0, equals), name) ||
            (equals != field.npos && !DecodeUrl(field.substr(equals + 1), value))) {
            return false;
        }
        if (!name.empty()) {
            request.query[name] = value;
        }
    }
    return true;
}
