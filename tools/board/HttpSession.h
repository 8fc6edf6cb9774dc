// One client of the board.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "tools/board/Connection.h"
#include "tools/board/EventStream.h"
#include "tools/board/Http.h"

// Reads requests and writes responses, one after the other, until it becomes a viewer and receives
// events. Lives until its connection is closed and no operation is pending.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    static constexpr uint32_t MAX_HEADER = 8192;
    static constexpr uint64_t MAX_BODY = 16384;  // a wall of 200 lamps
    static constexpr size_t MAX_CHUNK = 65536;   // of events in one write to a viewer
    static constexpr std::chrono::seconds REQUEST_TIME{10};
    static constexpr std::chrono::seconds WRITE_TIME{15};

    using Clock = std::chrono::steady_clock;

    // Its server, which outlives it.
    class Owner {
    public:
        virtual HttpResponse Answer(HttpRequest& request) = 0;
        virtual const EventStream& Stream() const = 0;
        virtual void Remove(const HttpSession& session) = 0;  // its connection is closed

    protected:
        ~Owner() = default;
    };

    HttpSession(Owner& owner, boost::asio::ip::tcp::socket socket, const TlsContext& context);

    void Start();

    // Sends a viewer the events it has not received, unless a write is still pending.
    void Pump();

    // Tells a viewer the reason, after which it is none, and closes its connection.
    void Dismiss(const std::string& reason);

    void Close();

    // Closes the connection of a client that is too slow.
    void CutOff();

    // The address of the client, as a proxy says if there is one.
    const std::string& Client() const { return m_client; }
    bool IsViewer() const { return m_viewer && m_last_words.empty(); }
    // A viewer that did not keep up.
    bool WasTooSlow() const { return m_too_slow; }
    bool HasDeadline() const { return m_deadline != Clock::time_point::max(); }
    bool IsLate(Clock::time_point now) const { return now >= m_deadline; }
    // When it last began to wait for its client.
    Clock::time_point WaitingSince() const { return m_since; }

private:
    using Error = boost::system::error_code;

    bool IsOpen() { return m_connection.GetSocket().is_open(); }
    void Await(std::chrono::seconds limit);
    void ReadRequest();
    void OnRequest(const Error& error);
    void Answer();
    HttpRequest TakeRequest();
    void Respond(HttpResponse response, bool head_only);
    void RespondLater(const HttpResponse& response, bool head_only);
    void OnWritten(const Error& error);
    void BeginViewing(const HttpResponse& response);
    void WatchForEnd();

    Owner& m_owner;
    Connection m_connection;
    std::string m_peer;
    std::string m_client;
    boost::beast::flat_buffer m_input;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> m_parser;
    std::string m_head;
    std::string m_body;
    bool m_keep = false;
    Clock::time_point m_deadline;
    Clock::time_point m_since;

    bool m_viewer = false;
    bool m_writing = false;
    std::string m_last_words;  // an event for a viewer, after which its connection is closed
    bool m_ending = false;     // they are being sent
    bool m_too_slow = false;
    uint64_t m_next = 0;
    EventStream::Takes m_takes;  // of the events; null: all
    std::shared_ptr<const Visit> m_visit;
    char m_ignored[256] = {};
};
