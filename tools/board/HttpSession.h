// One client of the board.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <memory>
#include <optional>
#include <string>

#include "tools/board/HttpServer.h"

// Reads requests and writes responses, one after the other, until it becomes a viewer and receives
// events. Lives until its connection is closed and no operation is pending.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(HttpServer& server, boost::asio::ip::tcp::socket socket);

    void Start() { ReadRequest(); }

    // Sends a viewer the events it has not received, unless a write is still pending.
    void Pump();

    void Close();

    bool IsViewer() const { return m_viewer; }
    bool IsLate(HttpServer::Clock::time_point now) const { return now >= m_deadline; }
    // When it last began to wait for its client.
    HttpServer::Clock::time_point WaitingSince() const { return m_since; }

private:
    using Error = boost::system::error_code;

    void Await(std::chrono::seconds limit);
    void ReadRequest();
    void OnRequest(const Error& error);
    void Answer();
    HttpRequest TakeRequest();
    HttpResponse Refuse(unsigned status, const std::string& reason) const;
    void Respond(HttpResponse response, bool head_only);
    void OnWritten(const Error& error);
    void BeginViewing(uint64_t from);
    void WatchForEnd();

    HttpServer& m_server;
    boost::asio::ip::tcp::socket m_socket;
    std::string m_peer;
    boost::beast::flat_buffer m_input;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> m_parser;
    std::string m_head;
    std::string m_body;
    bool m_keep = false;
    HttpServer::Clock::time_point m_deadline;
    HttpServer::Clock::time_point m_since;

    bool m_viewer = false;
    bool m_writing = false;
    bool m_ending = false;
    uint64_t m_next = 0;
    char m_ignored[256] = {};
};
