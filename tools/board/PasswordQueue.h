// Checks passwords beside the loop.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <deque>
#include <functional>
#include <string>
#include <thread>

// One after the other in a thread of its own, because each takes tens of milliseconds, in which
// the loop goes on. Everything else is for the loop's thread.
class PasswordQueue {
public:
    static constexpr size_t MAX_WAITING = 16;  // of each kind

    // The loop must outlive it. Throws std::system_error.
    explicit PasswordQueue(boost::asio::io_context& loop);
    ~PasswordQueue();
    PasswordQueue(const PasswordQueue&) = delete;
    PasswordQueue& operator=(const PasswordQueue&) = delete;

    // Calls done from the loop, with whether it is the password. What is urgent comes before all
    // that is not. False: too many wait, and done is never called.
    using Done = std::function<void(bool is_right)>;
    bool Check(const std::string& password, const std::string& hash, bool urgent, Done done);

private:
    struct Job {
        std::string password;
        std::string hash;
        Done done;
        bool is_right = false;
    };

    void Next();
    void Finish();

    boost::asio::posix::stream_descriptor m_end;  // readable when the thread has ended
    std::deque<Job> m_urgent;
    std::deque<Job> m_others;
    Job m_job;  // the thread's, until it has ended
    std::thread m_thread;
};
