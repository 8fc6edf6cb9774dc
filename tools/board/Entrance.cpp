#include "tools/board/Entrance.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <stdexcept>

#include "tools/board/Answers.h"

std::string ParseBase(const std::string& text) {
    const bool good =
        !text.empty() && text[0] == '/' && text.find("//") == text.npos &&
        text.find("/.") == text.npos && std::all_of(text.begin(), text.end(), [](unsigned char c) {
            return std::isalnum(c) != 0 || c == '/' || c == '-' || c == '_' || c == '.';
        });
    if (!good) {
        throw std::invalid_argument("not a path such as /board/: " + text);
    }
    return text.back() == '/' ? text : text + "/";
}

std::string ParseAddress(const std::string& text) {
    using namespace boost::asio::ip;
    boost::system::error_code error;
    const address parsed = make_address(text, error);
    if (error) {
        throw std::invalid_argument("not an address: " + text);
    }
    return parsed.is_v6() && parsed.to_v6().is_v4_mapped()
               ? make_address_v4(v4_mapped, parsed.to_v6()).to_string()
               : parsed.to_string();
}

// Each proxy adds the address from which it got the request at the end: what is before the first
// that is no proxy may be forged.
std::string Entrance::ClientOf(const HttpRequest& request) const {
    std::string client = request.peer;
    std::string rest = request.Header("x-forwarded-for");
    while (m_proxies.count(client) != 0 && !rest.empty()) {
        const size_t comma = rest.rfind(',');
        std::string last = comma == rest.npos ? rest : rest.substr(comma + 1);
        rest.resize(comma == rest.npos ? 0 : comma);
        last.erase(0, std::min(last.find_first_not_of(" \t"), last.size()));
        last.erase(last.find_last_not_of(" \t") + 1);
        try {
            client = ParseAddress(last);
        } catch (const std::invalid_argument&) {
            break;
        }
    }
    return client;
}

std::optional<HttpResponse> Entrance::Admit(HttpRequest& request) const {
    request.secure = request.secure || (m_proxies.count(request.peer) != 0 &&
                                        request.Header("x-forwarded-proto") == "https");
    request.peer = ClientOf(request);
    if (request.path + "/" == m_base) {
        HttpResponse moved = Refuse(308, "it is at " + m_base);
        moved.headers.emplace_back("Location", m_base);
        return moved;
    }
    if (request.path.compare(0, m_base.size(), m_base) != 0) {
        return Fail(404, "no such page");
    }
    request.path.erase(0, m_base.size() - 1);
    return std::nullopt;
}
