#include "tools/board/Access.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "tools/base/ErrorText.h"
#include "tools/base/OpenText.h"

namespace {

const unsigned MAX_WRONG = 10;        // wrong tokens of a visitor in a minute
const unsigned MAX_WRONG_NEAR = 100;  // of a network
const size_t MAX_COUNTED = 10000;     // visitors and networks
const std::chrono::minutes WRONG_FOR{1};
const size_t MIN_TOKEN = 16;

// Takes equally long for all tokens of one length, however many characters are right.
bool IsSame(const std::string& a, const std::string& b) {
    unsigned char difference = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        difference = static_cast<unsigned char>(difference | (a[i] ^ b[i]));
    }
    return difference == 0;
}

bool IsAddress(const std::string& text) {
    unsigned char bytes[16];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
           inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

}  // namespace

bool Access::IsKnownHost(const std::string& host) const {
    std::string name = host;
    if (!name.empty() && name[0] == '[') {
        const size_t end = name.find(']');
        return end != name.npos && IsAddress(name.substr(1, end - 1)) &&
               (end + 1 == name.size() || name[end + 1] == ':');
    }
    name.resize(std::min(name.find(':'), name.size()));
    return name == "localhost" || IsAddress(name) || m_settings.hosts.count(name) != 0;
}

// Whoever has the right token is never refused because of what others send.
Access::Verdict Access::MaySet(const HttpRequest& request, TimePoint now) {
    if (!m_settings.allow_set) {
        return {403, "setting pins is switched off (--allow-set)"};
    }
    const std::string host = request.Header("host");
    const std::string origin = request.Header("origin");
    if (origin != "http://" + host && origin != "https://" + host) {
        return {403, "the Origin is not this board's"};
    }
    if (request.Header("x-orvex-board") != "set") {
        return {403, "the header X-Orvex-Board: set is missing"};
    }
    const std::string type = request.Header("content-type");
    if (type.compare(0, type.find(';'), "application/json") != 0) {
        return {415, "the body must be application/json"};
    }
    if (IsSame(request.Header("authorization"), "Bearer " + m_settings.token)) {
        return {};
    }
    return CountsAsFew(request.peer, now)
               ? Verdict{401, "the token is wrong or missing"}
               : Verdict{429, "the token is wrong or missing, too often; wait a minute"};
}

bool Access::CountsAsFew(const std::string& peer, TimePoint now) {
    if (now - m_wrong_since >= WRONG_FOR) {
        m_wrong_since = now;
        m_wrong.clear();
    }
    if (m_wrong.size() >= MAX_COUNTED) {
        return false;
    }
    const unsigned own = ++m_wrong[VisitorOf(peer)];
    const unsigned near = ++m_wrong[NetworkOf(peer)];
    return own <= MAX_WRONG && near <= MAX_WRONG_NEAR;
}

std::string ReadToken(const std::string& file) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) {
        throw std::runtime_error(file + ": " + ErrorText(errno));
    }
    if ((status.st_mode & S_IROTH) != 0) {
        throw std::runtime_error(file + ": everyone may read the token (chmod o-r)");
    }
    std::ifstream stream = OpenText(file);
    std::string token;
    std::getline(stream, token);
    if (token.size() < MIN_TOKEN) {
        throw std::runtime_error(file + ": the token has fewer than 16 characters");
    }
    return token;
}
