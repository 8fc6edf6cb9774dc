#include "tools/board/HttpServer.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <stdexcept>

#include "tools/board/HttpSession.h"

using boost::asio::ip::tcp;

namespace {

const std::chrono::milliseconds SWEEP_PACE{500};
const std::chrono::milliseconds ACCEPT_PAUSE{100};

}  // namespace

HttpServer::HttpServer(boost::asio::io_context& loop, EventStream& stream, Handler handler)
    : m_loop(loop),
      m_stream(stream),
      m_handler(std::move(handler)),
      m_acceptor(loop),
      m_sweep(loop),
      m_flush(loop),
      m_pause(loop) {
    m_stream.on_append = [this] { OnAppend(); };
}

HttpServer::~HttpServer() {
    m_stream.on_append = nullptr;
    const auto sessions = m_sessions;
    for (const auto& session : sessions) {
        session->Close();
    }
}

void HttpServer::Listen(int listening_socket) {
    int listens = 0;
    socklen_t size = sizeof listens;
    if (getsockopt(listening_socket, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 ||
        listens == 0) {
        throw std::runtime_error("the descriptor passed in LISTEN_FDS is not a listening socket");
    }
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    const bool v6 =
        getsockname(listening_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        address.ss_family == AF_INET6;
    m_acceptor.assign(v6 ? tcp::v6() : tcp::v4(), listening_socket);
    m_acceptor.non_blocking(true);
    Accept();
    Sweep();
}

void HttpServer::Listen(const std::string& ip, uint16_t port) {
    const tcp::endpoint endpoint(boost::asio::ip::make_address(ip), port);
    m_acceptor.open(endpoint.protocol());
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
    Accept();
    Sweep();
}

std::string HttpServer::Address() const {
    boost::system::error_code error;
    const tcp::endpoint endpoint = m_acceptor.local_endpoint(error);
    const std::string ip = endpoint.address().to_string();
    const std::string host = endpoint.address().is_v6() ? "[" + ip + "]" : ip;
    return host + ":" + std::to_string(endpoint.port());
}

// Without descriptors left, it waits a while before it tries again.
void HttpServer::Accept() {
    m_acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
        if (error == boost::asio::error::operation_aborted) {
            return;
        }
        if (!error) {
            Admit(std::move(socket));
            Accept();
            return;
        }
        m_pause.expires_after(ACCEPT_PAUSE);
        m_pause.async_wait([this](const boost::system::error_code& stopped) {
            if (!stopped) {
                Accept();
            }
        });
    });
}

void HttpServer::Admit(tcp::socket socket) {
    if (m_sessions.size() >= MAX_SESSIONS) {
        const auto idle = std::min_element(m_sessions.begin(), m_sessions.end(),
                                           [](const auto& a, const auto& b) {
                                               return std::pair(a->IsViewer(), a->WaitingSince()) <
                                                      std::pair(b->IsViewer(), b->WaitingSince());
                                           });
        (*idle)->Close();
    }
    m_sessions.push_back(std::make_shared<HttpSession>(*this, std::move(socket)));
    m_sessions.back()->Start();
}

void HttpServer::Remove(const HttpSession& session) {
    m_viewers -= session.IsViewer() ? 1 : 0;
    m_sessions.remove_if([&](const auto& other) { return other.get() == &session; });
}

// At once after a pause; under load, everything within the pace is sent in one write.
void HttpServer::OnAppend() {
    if (m_flushing || m_viewers == 0) {
        return;
    }
    m_flushing = true;
    const auto due = m_flushed + FLUSH_PACE;
    if (due <= Clock::now()) {
        boost::asio::post(m_loop, [this] { Flush(); });
        return;
    }
    m_flush.expires_at(due);
    m_flush.async_wait([this](const boost::system::error_code& stopped) {
        if (!stopped) {
            Flush();
        }
    });
}

void HttpServer::Flush() {
    m_flushing = false;
    m_flushed = Clock::now();
    const auto sessions = m_sessions;
    for (const auto& session : sessions) {
        session->Pump();
    }
}

void HttpServer::Sweep() {
    const auto now = Clock::now();
    const auto sessions = m_sessions;
    for (const auto& session : sessions) {
        if (session->IsLate(now)) {
            m_cut += session->IsViewer() ? 1 : 0;
            session->Close();
        }
    }
    m_sweep.expires_after(SWEEP_PACE);
    m_sweep.async_wait([this](const boost::system::error_code& stopped) {
        if (!stopped) {
            Sweep();
        }
    });
}
