#include "tools/board/Login.h"

#include <utility>

#include "tools/board/Answers.h"
#include "tools/board/Secret.h"
#include "tools/board/Sessions.h"
#include "tools/bus/JsonFormat.h"

namespace {

const std::chrono::hours KNOWN_FOR{365 * 24};
const char* const WRONG = "the name or the password is wrong";

// What the browser sends back, and no script and no other site gets.
std::string Cookie(const std::string& name, const std::string& value, std::chrono::seconds age,
                   const std::string& path, bool secure) {
    return name + "=" + value + "; Path=" + path + "; Max-Age=" + std::to_string(age.count()) +
           "; HttpOnly; SameSite=Strict" + (secure ? "; Secure" : "");
}

}  // namespace

HttpResponse Login::LogIn(const HttpRequest& request, TimePoint now) {
    const Access::Verdict verdict = m_access.IsFromPage(request);
    if (!verdict.reason.empty()) {
        return Fail(verdict.status, verdict.reason);
    }
    const auto body = nlohmann::json::parse(request.body, nullptr, false);
    if (!body.is_object() || !body.value("user", nlohmann::json()).is_string() ||
        !body.value("password", nlohmann::json()).is_string()) {
        return Fail(400, "a user and a password are needed");
    }
    Try attempt;
    attempt.user = body["user"].get<std::string>();
    attempt.password = body["password"].get<std::string>();
    attempt.hash = m_access.PasswordOf(attempt.user);
    attempt.session = request.CookieOf(m_access.CookieName());
    attempt.known = request.CookieOf(m_access.KnownName());
    attempt.is_known = m_access.GetSessions().IsKnown(attempt.known, attempt.user);
    attempt.secure = request.secure;
    attempt.keys = attempt.is_known ? Guesses::Keys{{attempt.known, Guesses::MAX_WRONG}}
                                    : Guesses::KeysOf(request.peer);
    if (!attempt.is_known) {
        attempt.keys.emplace_back("user " + attempt.user.substr(0, MAX_PASSWORD), MAX_WRONG_USER);
    }
    Guesses& guesses = attempt.is_known ? m_known : m_strangers;
    if (!guesses.CountsAsFew(attempt.keys, now)) {
        return Fail(429, std::string(WRONG) + ", too often; wait a minute");
    }
    HttpResponse response;
    response.later = [this, attempt](const HttpResponse::Done& done) {
        const bool waits = m_queue.Check(
            attempt.password, attempt.hash, attempt.is_known,
            [this, attempt, done](bool is_right) { done(Finish(attempt, is_right)); });
        if (!waits) {
            done(Fail(503, "too many log in at once; try again"));
        }
    };
    return response;
}

// Meanwhile the users may have been read again.
HttpResponse Login::Finish(const Try& attempt, bool is_right) {
    const UserEntry* const user = m_access.FindUser(attempt.user);
    if (!is_right || user == nullptr || user->hash != attempt.hash) {
        return Fail(401, WRONG);
    }
    (attempt.is_known ? m_known : m_strangers).Forgive(attempt.keys);
    Sessions& sessions = m_access.GetSessions();
    sessions.End(attempt.session);
    const auto cookie = [&](const std::string& name, const std::string& value,
                            std::chrono::seconds age) {
        return std::pair<std::string, std::string>(
            "Set-Cookie", Cookie(name, value, age, m_access.Base(), attempt.secure));
    };
    HttpResponse response = Answer(Dump({{"name", user->name}}) + "\n");
    response.headers.push_back(
        cookie(m_access.CookieName(), sessions.Begin(*user, Now()), Sessions::LENGTH));
    const std::string known = attempt.is_known ? attempt.known : sessions.MakeKnown(user->name);
    response.headers.push_back(cookie(m_access.KnownName(), known, KNOWN_FOR));
    return response;
}

HttpResponse Login::LogOut(const HttpRequest& request) {
    const Access::Verdict verdict = m_access.IsFromPage(request);
    if (!verdict.reason.empty()) {
        return Fail(verdict.status, verdict.reason);
    }
    m_access.GetSessions().End(request.CookieOf(m_access.CookieName()));
    HttpResponse response = Answer("{}\n");
    response.headers.emplace_back(
        "Set-Cookie", Cookie(m_access.CookieName(), "", std::chrono::seconds(0), m_access.Base(),
                             request.secure));
    return response;
}
