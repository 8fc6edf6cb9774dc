#include "tools/board/PasswordQueue.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "tools/board/Secret.h"

PasswordQueue::PasswordQueue(boost::asio::io_context& loop) : m_end(loop) {
    const int descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    m_end.assign(descriptor);
}

PasswordQueue::~PasswordQueue() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool PasswordQueue::Check(const std::string& password, const std::string& hash, bool urgent,
                          Done done) {
    std::deque<Job>& queue = urgent ? m_urgent : m_others;
    if (queue.size() >= MAX_WAITING) {
        return false;
    }
    queue.push_back({password, hash, std::move(done)});
    Next();
    return true;
}

void PasswordQueue::Next() {
    std::deque<Job>& queue = m_urgent.empty() ? m_others : m_urgent;
    if (m_thread.joinable() || queue.empty()) {
        return;
    }
    m_job = std::move(queue.front());
    queue.pop_front();
    m_thread = std::thread([this] {
        m_job.is_right = IsPassword(m_job.password, m_job.hash);
        eventfd_write(m_end.native_handle(), 1);
    });
    m_end.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                     [this](const boost::system::error_code& error) {
                         if (!error) {
                             Finish();
                         }
                     });
}

void PasswordQueue::Finish() {
    m_thread.join();
    eventfd_t ignored = 0;
    eventfd_read(m_end.native_handle(), &ignored);
    const Job job = std::exchange(m_job, Job());
    Next();
    job.done(job.is_right);
}
