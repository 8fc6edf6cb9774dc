#include "tools/board/Access.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tools/base/OpenText.h"
#include "tools/board/Secret.h"

namespace {

const size_t MIN_TOKEN = 16;
const char* const BEARER = "Bearer ";

bool IsAddress(const std::string& text) {
    unsigned char bytes[16];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 ||
           inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

// Empty if there is none.
std::string TokenOf(const HttpRequest& request) {
    const std::string text = request.Header("authorization");
    return text.compare(0, strlen(BEARER), BEARER) == 0 ? text.substr(strlen(BEARER)) : "";
}

}  // namespace

Access::Access(AccessSettings settings, const Names& names)
    : m_settings(std::move(settings)),
      m_names(names),
      m_guest(std::make_shared<Visit>()),
      m_master(std::make_shared<Visit>()) {
    m_master->rights = Rights::All();
    if (HasUsers()) {
        m_nobody = HashPassword(MakeToken());
    }
    Take(ReadFiles(m_settings));
}

Access::Files Access::ReadFiles(const AccessSettings& settings) {
    Files files;
    if (!settings.token_file.empty()) {
        files.token = ReadToken(settings.token_file);
    }
    if (!settings.users_file.empty()) {
        files.users = ReadUsers(settings.users_file);
    }
    return files;
}

void Access::Reload() {
    Take(ReadFiles(m_settings));
}

// Whoever is still in the file keeps the visit.
void Access::Take(Files files) {
    m_files = std::move(files);
    m_sessions.Take(m_files.users);
    m_guest->rights = Rights();
    if (!HasUsers()) {
        m_guest->rights.Add("read");
    }
    const auto before = std::move(m_tokens);
    m_tokens.clear();
    for (const auto& [hash, visit] : before) {
        visit->ended = true;
    }
    for (const UserEntry& entry : m_files.users) {
        if (entry.kind == UserEntry::Kind::Guest) {
            m_guest->rights = entry.rights;
        } else if (entry.kind == UserEntry::Kind::Token) {
            const auto known = before.find(entry.hash);
            auto visit = known != before.end() ? known->second : std::make_shared<Visit>();
            *visit = {entry.name, entry.rights, false};
            m_tokens[entry.hash] = visit;
        }
    }
}

std::vector<std::string> Access::Doubts() const {
    std::vector<std::string> doubts;
    for (const UserEntry& entry : m_files.users) {
        for (const std::string& word : entry.rights.Unknown(m_names)) {
            doubts.push_back((entry.name.empty() ? "guest" : entry.name) +
                             " has rights to what has no name: " + word);
        }
    }
    return doubts;
}

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

std::shared_ptr<const Visit> Access::VisitOf(const HttpRequest& request) {
    const std::string token = TokenOf(request);
    if (token.empty()) {
        const auto visit = m_sessions.Find(request.CookieOf(m_settings.cookie), Now());
        return visit != nullptr ? visit : m_guest;
    }
    if (!m_files.token.empty() && IsSame(token, m_files.token)) {
        return m_master;
    }
    const auto found = m_tokens.empty() ? m_tokens.end() : m_tokens.find(HashToken(token));
    return found != m_tokens.end() ? found->second : m_guest;
}

// ---- reading ----

// Guests may become somebody who has the right.
Access::Verdict Access::Lacks(const HttpRequest& request, const std::string& what) const {
    if (request.visit == m_guest) {
        return {401, "log in to " + what};
    }
    return {403, request.visit->name + " may not " + what};
}

Access::Verdict Access::MayReadAny(const HttpRequest& request) const {
    return request.visit->rights.MayReadAny() ? Verdict{} : Lacks(request, "read pins");
}

Access::Verdict Access::MayReadAll(const HttpRequest& request) const {
    return request.visit->rights.MayReadAll() ? Verdict{} : Lacks(request, "read everything");
}

bool Access::MayRead(const HttpRequest& request, uint32_t tag) const {
    return request.visit->rights.MayRead(tag, m_names);
}

std::function<bool(const Audience&)> Access::FilterOf(const HttpRequest& request) const {
    if (!HasUsers()) {
        return nullptr;
    }
    return [visit = request.visit, &names = m_names](const Audience& audience) {
        return visit->rights.MayReadAll() || audience.everyone ||
               (audience.pin && visit->rights.MayRead(*audience.pin, names));
    };
}

// ---- changing ----

Access::Verdict Access::IsFromPage(const HttpRequest& request) const {
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
    return {};
}

// Whoever has the right token is never refused because of what others send.
Access::Verdict Access::MayChange(const HttpRequest& request, TimePoint now) {
    Verdict verdict = IsFromPage(request);
    if (!verdict.reason.empty() || request.visit != m_guest ||
        (HasUsers() && TokenOf(request).empty())) {
        return verdict;
    }
    return m_guesses.CountsAsFew(Guesses::KeysOf(request.peer), now)
               ? Verdict{401, "the token is wrong or missing"}
               : Verdict{429, "the token is wrong or missing, too often; wait a minute"};
}

Access::Verdict Access::MaySet(const HttpRequest& request, TimePoint now) {
    if (!m_settings.allow_set) {
        return {403, "setting pins is switched off (--allow-set)"};
    }
    const Verdict verdict = MayChange(request, now);
    return !verdict.reason.empty() || request.visit->rights.MaySetAny()
               ? verdict
               : Lacks(request, "set pins");
}

Access::Verdict Access::MaySetPin(const HttpRequest& request, uint32_t tag) const {
    return request.visit->rights.MaySet(tag, m_names) ? Verdict{}
                                                      : Lacks(request, "set " + m_names.Label(tag));
}

Access::Verdict Access::MayEditWalls(const HttpRequest& request, TimePoint now) {
    if (!HasUsers() && m_files.token.empty()) {
        return {403, "walls can't be edited without a token or users (--token-file, --users)"};
    }
    const Verdict verdict = MayChange(request, now);
    return !verdict.reason.empty() || request.visit->rights.MayEdit()
               ? verdict
               : Lacks(request, "edit walls");
}

bool Access::OffersSet(const HttpRequest& request) const {
    return m_settings.allow_set && (!HasUsers() || request.visit->rights.MaySetAny());
}

bool Access::OffersEdit(const HttpRequest& request) const {
    return HasUsers() ? request.visit->rights.MayEdit() : !m_files.token.empty();
}

const UserEntry* Access::FindUser(const std::string& name) const {
    const auto found = std::find_if(
        m_files.users.begin(), m_files.users.end(),
        [&](const auto& one) { return one.kind == UserEntry::Kind::User && one.name == name; });
    return found == m_files.users.end() ? nullptr : &*found;
}

std::string Access::PasswordOf(const std::string& name) const {
    const UserEntry* const user = FindUser(name);
    return user != nullptr ? user->hash : m_nobody;
}

bool Access::ListsSettable(const HttpRequest& request) const {
    return HasUsers() && OffersSet(request) && !request.visit->rights.MaySetAll();
}

Json Access::JsonOf(const HttpRequest& request) const {
    const Visit& visit = *request.visit;
    return {{"name", visit.name},
            {"guest", request.visit == m_guest},
            {"edit", visit.rights.MayEdit()}};
}

std::string ReadToken(const std::string& file) {
    CheckPrivate(file, "the token");
    std::ifstream stream = OpenText(file);
    std::string token;
    std::getline(stream, token);
    if (token.size() < MIN_TOKEN) {
        throw std::runtime_error(file + ": the token has fewer than 16 characters");
    }
    return token;
}
