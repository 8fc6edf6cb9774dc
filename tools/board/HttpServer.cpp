#include "tools/board/HttpServer.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <map>
#include <stdexcept>

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
}

void HttpServer::Listen(const std::string& ip, uint16_t port) {
    const tcp::endpoint endpoint(boost::asio::ip::make_address(ip), port);
    m_acceptor.open(endpoint.protocol());
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
    Accept();
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
    HttpSession::Owner& owner = *this;
    m_sessions.push_back(std::make_shared<HttpSession>(owner, std::move(socket), m_tls));
    m_sessions.back()->Start();
    SweepSoon();
}

HttpResponse HttpServer::Answer(HttpRequest& request) {
    HttpResponse response = m_handler(request);
    if (response.follow && !MakeRoom(request.peer)) {
        response = Refuse(503, "too many viewers");
        response.headers.emplace_back("Retry-After", "30");
    }
    return response;
}

size_t HttpServer::Viewers() const {
    return static_cast<size_t>(std::count_if(m_sessions.begin(), m_sessions.end(),
                                             [](const auto& one) { return one->IsViewer(); }));
}

// For one more viewer. False: its host has as large a share as any.
bool HttpServer::MakeRoom(const std::string& peer) {
    std::map<std::string, size_t> count;
    size_t viewers = 0;
    for (const auto& session : m_sessions) {
        count[VisitorOf(session->Client())] += session->IsViewer() ? 1 : 0;
        viewers += session->IsViewer() ? 1 : 0;
    }
    const auto most =
        std::max_element(count.begin(), count.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    if (viewers < MAX_VIEWERS || most == count.end()) {
        return true;
    }
    if (count[VisitorOf(peer)] + 1 >= most->second) {
        return false;
    }
    const auto newest = std::find_if(m_sessions.rbegin(), m_sessions.rend(), [&](const auto& one) {
        return one->IsViewer() && VisitorOf(one->Client()) == most->first;
    });
    (*newest)->Dismiss("too many viewers from this address");
    return true;
}

void HttpServer::Remove(const HttpSession& session) {
    m_cut += session.WasTooSlow() ? 1 : 0;
    m_sessions.remove_if([&](const auto& other) { return other.get() == &session; });
}

// At once after a pause; under load, everything within the pace is sent in one write.
void HttpServer::OnAppend() {
    if (m_flushing || m_sessions.empty()) {
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
    SweepSoon();
}

// While there are clients that something is expected of.
void HttpServer::SweepSoon() {
    if (m_sweeping || std::all_of(m_sessions.begin(), m_sessions.end(),
                                  [](const auto& one) { return !one->HasDeadline(); })) {
        return;
    }
    m_sweeping = true;
    m_sweep.expires_after(SWEEP_PACE);
    m_sweep.async_wait([this](const boost::system::error_code& stopped) {
        m_sweeping = false;
        if (!stopped) {
            Sweep();
            SweepSoon();
        }
    });
}

void HttpServer::Sweep() {
    const auto now = Clock::now();
    const auto sessions = m_sessions;
    for (const auto& session : sessions) {
        if (session->IsLate(now)) {
            session->CutOff();
        }
    }
}
