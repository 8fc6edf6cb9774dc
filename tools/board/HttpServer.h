// The board's connections to its viewers.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "tools/board/EventStream.h"
#include "tools/board/Http.h"
#include "tools/board/HttpSession.h"

// Serves HTTP/1.1 in the given loop. The limits below bound the cost of everything a client sends
// or leaves unread: a request that is not complete in time is cut off, beyond the maximum the
// connection that has been idle longest is closed, and a viewer that does not keep up with the
// stream is notified and disconnected. If all places of viewers are taken, the newest of the host
// that has the most makes room for a host with fewer: no host keeps the others out.
class HttpServer : private HttpSession::Owner {
public:
    static constexpr size_t MAX_SESSIONS = 400;
    static constexpr size_t MAX_VIEWERS = 200;
    static constexpr std::chrono::milliseconds FLUSH_PACE{10};

    using Handler = std::function<HttpResponse(HttpRequest&)>;
    using Clock = HttpSession::Clock;

    // Handler and stream must outlive the server.
    HttpServer(boost::asio::io_context& loop, EventStream& stream, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Uses a socket that already listens, or creates one. Throws std::runtime_error.
    void Listen(int listening_socket);
    void Listen(const std::string& ip, uint16_t port);

    // From now on, new connections use it. Null: no TLS.
    void UseTls(TlsContext context) { m_tls = std::move(context); }

    // The address it listens on, "127.0.0.1:8093".
    std::string Address() const;

    size_t Viewers() const;
    uint64_t CutOff() const { return m_cut; }  // viewers that were too slow

private:
    HttpResponse Answer(HttpRequest& request) override;
    const EventStream& Stream() const override { return m_stream; }
    void Remove(const HttpSession& session) override;

    bool MakeRoom(const std::string& peer);
    void Accept();
    void Admit(boost::asio::ip::tcp::socket socket);
    void OnAppend();
    void Flush();
    void SweepSoon();
    void Sweep();

    boost::asio::io_context& m_loop;
    EventStream& m_stream;
    const Handler m_handler;
    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_sweep;
    boost::asio::steady_timer m_flush;
    boost::asio::steady_timer m_pause;
    bool m_flushing = false;
    bool m_sweeping = false;
    Clock::time_point m_flushed;
    std::list<std::shared_ptr<HttpSession>> m_sessions;
    TlsContext m_tls;
    uint64_t m_cut = 0;
};
