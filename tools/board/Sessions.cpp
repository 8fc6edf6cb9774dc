#include "tools/board/Sessions.h"

#include <algorithm>

#include "tools/board/Secret.h"

Sessions::Place Sessions::Drop(Place place) {
    place->second.visit->ended = true;
    return m_sessions.erase(place);
}

std::string Sessions::Begin(const UserEntry& user, TimePoint now) {
    size_t count = 0;
    Place oldest = m_sessions.end();
    for (Place one = m_sessions.begin(); one != m_sessions.end(); ++one) {
        if (one->second.visit->name == user.name) {
            ++count;
            oldest = oldest == m_sessions.end() || one->second.begin < oldest->second.begin
                         ? one
                         : oldest;
        }
    }
    if (count >= MAX_OF_USER) {
        Drop(oldest);
    }
    std::string secret = MakeToken();
    const Visit visit = {user.name, user.rights, false};
    m_sessions[HashToken(secret)] = {std::make_shared<Visit>(visit), user.hash, now};
    return secret;
}

std::shared_ptr<const Visit> Sessions::Find(const std::string& secret, TimePoint now) {
    if (secret.empty() || m_sessions.empty()) {
        return nullptr;
    }
    const Place found = m_sessions.find(HashToken(secret));
    if (found != m_sessions.end() && now - found->second.begin >= LENGTH) {
        Drop(found);
        return nullptr;
    }
    return found == m_sessions.end() ? nullptr : found->second.visit;
}

void Sessions::End(const std::string& secret) {
    const Place found = m_sessions.find(HashToken(secret));
    if (found != m_sessions.end()) {
        Drop(found);
    }
}

void Sessions::Tend(TimePoint now) {
    for (Place one = m_sessions.begin(); one != m_sessions.end();) {
        one = now - one->second.begin >= LENGTH ? Drop(one) : std::next(one);
    }
}

void Sessions::Take(const std::vector<UserEntry>& users) {
    for (Place one = m_sessions.begin(); one != m_sessions.end();) {
        const auto user = std::find_if(users.begin(), users.end(), [&](const UserEntry& entry) {
            return entry.kind == UserEntry::Kind::User && entry.name == one->second.visit->name &&
                   entry.hash == one->second.hash;
        });
        if (user == users.end()) {
            one = Drop(one);
        } else {
            one->second.visit->rights = user->rights;
            ++one;
        }
    }
}

std::string Sessions::MakeKnown(const std::string& user) {
    if (m_known.size() >= MAX_KNOWN) {
        m_known.erase(m_known.begin());  // any: their keys are random
    }
    std::string secret = MakeToken();
    m_known[HashToken(secret)] = user;
    return secret;
}

bool Sessions::IsKnown(const std::string& secret, const std::string& user) const {
    const auto found = secret.empty() ? m_known.end() : m_known.find(HashToken(secret));
    return found != m_known.end() && found->second == user;
}
