#include "tools/base/Notify.h"

#include <cstdlib>

namespace {

const int BEATS = 4;  // in the time after which the manager gives up

}  // namespace

Notify::Notify() {
    if (m_socket.Open(getenv("NOTIFY_SOCKET"))) {
        m_period = std::chrono::milliseconds(watchdog_ms() / BEATS);
    }
    if (m_period.count() > 0) {
        m_next = Now();
    }
}

void Notify::Ready() {
    m_socket.Send("READY=1");
}

void Notify::Status(const std::string& text) {
    if (text != m_status && m_socket.Send(("STATUS=" + text).c_str())) {
        m_status = text;
    }
}

void Notify::Stopping() {
    m_socket.Send("STOPPING=1");
}

void Notify::Beat() {
    const TimePoint now = Now();
    if (now >= m_next) {
        m_socket.Send("WATCHDOG=1");
        m_next = now + m_period;
    }
}
