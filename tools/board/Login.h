// Logging in and out.
#pragma once

#include <string>

#include "tools/board/Access.h"
#include "tools/board/Guesses.h"
#include "tools/board/Http.h"
#include "tools/board/PasswordQueue.h"

class Login {
public:
    static constexpr unsigned MAX_WRONG_USER = 20;  // passwords of a user, from unknown browsers

    // Both must outlive it.
    Login(Access& access, PasswordQueue& queue) : m_access(access), m_queue(queue) {}

    // {"user": ..., "password": ...}. The answer comes when the password has been checked. A new
    // session begins, whatever cookie the request has.
    HttpResponse LogIn(const HttpRequest& request, TimePoint now);

    HttpResponse LogOut(const HttpRequest& request);

private:
    struct Try {
        std::string user;
        std::string password;
        std::string hash;     // of the user's password; of none, if there is no such user
        std::string session;  // secrets of the browser
        std::string known;
        bool is_known = false;  // the user has logged in with it before
        bool secure = false;
        Guesses::Keys keys;
    };
    HttpResponse Finish(const Try& attempt, bool is_right);

    Access& m_access;
    PasswordQueue& m_queue;
    Guesses m_strangers;  // what they guess does not count for the others
    Guesses m_known;
};
