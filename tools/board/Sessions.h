// Who has logged in.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/base/Time.h"
#include "tools/board/UsersFile.h"
#include "tools/board/Visit.h"

// In memory: when the board starts again, everyone has to log in again. Of the secrets only hashes
// are kept.
class Sessions {
public:
    static constexpr std::chrono::hours LENGTH{30 * 24};
    static constexpr size_t MAX_OF_USER = 50;  // beyond them, the oldest ends
    static constexpr size_t MAX_KNOWN = 10000;

    // Begins one, and returns its secret, which nobody has seen before.
    std::string Begin(const UserEntry& user, TimePoint now);

    // Null if there is none.
    std::shared_ptr<const Visit> Find(const std::string& secret, TimePoint now);

    void End(const std::string& secret);

    // Ends those that are too old, as Find() does. Call it now and then.
    void Tend(TimePoint now);

    // The users have been read again: those who are gone, or have another password, are logged out.
    void Take(const std::vector<UserEntry>& users);

    // Browsers in which a user has logged in before, so that what strangers guess does not keep
    // the user out. Returns the secret of a new one.
    std::string MakeKnown(const std::string& user);
    bool IsKnown(const std::string& secret, const std::string& user) const;

private:
    struct Session {
        std::shared_ptr<Visit> visit;
        std::string hash;  // of the user's password
        TimePoint begin;
    };
    using Place = std::map<std::string, Session>::iterator;
    Place Drop(Place place);

    std::map<std::string, Session> m_sessions;   // by the hash of their secrets
    std::map<std::string, std::string> m_known;  // users, the same
};
