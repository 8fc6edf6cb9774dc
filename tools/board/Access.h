// Who may do what.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tools/base/Time.h"
#include "tools/board/EventStream.h"
#include "tools/board/Guesses.h"
#include "tools/board/Http.h"
#include "tools/board/Sessions.h"
#include "tools/board/UsersFile.h"
#include "tools/board/Visit.h"
#include "tools/bus/JsonFormat.h"

struct AccessSettings {
    bool allow_set = false;
    std::string token_file;  // empty: none
    std::string users_file;  // empty: everyone reads, and whoever has the token may do the rest
    std::set<std::string> hosts;  // further host names of the board, without a port
    std::string cookie;           // its name; of two boards on one host, each has another
    std::string base = "/";       // the path under which the board is
};

// A page of another origin can make a browser send requests here, under a name that it made resolve
// to this address. So the host of a request must be an address, "localhost" or a given name; a
// request that changes something needs the same in its Origin, and a header that no form can send.
class Access {
public:
    // The names must outlive it. Throws std::runtime_error if a file can't be read.
    Access(AccessSettings settings, const Names& names);

    // Reads the files again. Throws as the constructor does, and leaves all as it was.
    void Reload();

    bool IsKnownHost(const std::string& host) const;

    // Whose request it is, as its token or cookie says.
    std::shared_ptr<const Visit> VisitOf(const HttpRequest& request);

    // The following want the visit in the request.
    struct Verdict {
        unsigned status = 200;
        std::string reason;  // empty: allowed
    };
    Verdict MayReadAny(const HttpRequest& request) const;
    Verdict MayReadAll(const HttpRequest& request) const;
    bool MayRead(const HttpRequest& request, uint32_t tag) const;
    // For requests that change something. Wrong tokens are counted by visitor and network: 429 is
    // for too many in a minute.
    Verdict MaySet(const HttpRequest& request, TimePoint now);  // some pin
    Verdict MaySetPin(const HttpRequest& request, uint32_t tag) const;
    Verdict MayEditWalls(const HttpRequest& request, TimePoint now);

    // Which events a viewer gets; null for all of them.
    std::function<bool(const Audience&)> FilterOf(const HttpRequest& request) const;

    // Whether the page should offer to set pins. Without users that is so for everyone, as the page
    // asks for the token.
    bool OffersSet(const HttpRequest& request) const;
    // The same for walls.
    bool OffersEdit(const HttpRequest& request) const;
    // Whether the page needs a list of the pins that it may set: some, but not all.
    bool ListsSettable(const HttpRequest& request) const;

    // Who it is, and what they may do, for the page.
    Json JsonOf(const HttpRequest& request) const;
    bool HasUsers() const { return !m_settings.users_file.empty(); }

    // For logging in. A request that changes something comes from a page of this board.
    Verdict IsFromPage(const HttpRequest& request) const;
    // Null if there is none.
    const UserEntry* FindUser(const std::string& name) const;
    // The hash of the user's password. Of a user who does not exist one that takes as long to
    // check.
    std::string PasswordOf(const std::string& name) const;
    void Tend(TimePoint now) { m_sessions.Tend(now); }  // call it now and then
    Sessions& GetSessions() { return m_sessions; }
    const std::string& CookieName() const { return m_settings.cookie; }
    std::string KnownName() const { return m_settings.cookie + "-known"; }
    const std::string& Base() const { return m_settings.base; }

    // Of users and tokens of the file: pins in their rights that have no name.
    std::vector<std::string> Doubts() const;

private:
    struct Files {
        std::string token;  // the one that may do everything; empty: none
        std::vector<UserEntry> users;
    };
    static Files ReadFiles(const AccessSettings& settings);
    void Take(Files files);
    Verdict MayChange(const HttpRequest& request, TimePoint now);
    Verdict Lacks(const HttpRequest& request, const std::string& what) const;

    const AccessSettings m_settings;
    const Names& m_names;
    Files m_files;
    std::string m_nobody;  // the hash of no user's password
    std::shared_ptr<Visit> m_guest;
    std::shared_ptr<Visit> m_master;  // who has the token that may do everything
    std::map<std::string, std::shared_ptr<Visit>> m_tokens;  // by hash
    Guesses m_guesses;
    Sessions m_sessions;
};

// The token in a file: its first line. Throws std::runtime_error if it can't be read, is shorter
// than 16 characters or may be read by everyone.
std::string ReadToken(const std::string& file);
