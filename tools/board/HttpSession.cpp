#include "tools/board/HttpSession.h"

#include <algorithm>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <cctype>

#include "tools/board/Visit.h"

namespace http = boost::beast::http;

namespace {

const int SEND_BUFFER = 131072;  // what the system may buffer for one client

const char* const SLOW =
    "event: reload\ndata: {\"reason\":\"this viewer reads more slowly than things happen\"}\n\n";

const char* const LOGGED_OUT = "you are logged out";

const char* const REFUSED = "event: refused\ndata: {\"reason\":\"";

std::string LastWords(const std::string& reason) {
    return REFUSED + reason + "\"}\n\n";
}

// For every response. The page needs nothing from other origins.
const char* const SAFETY =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src "
    "'self'; connect-src 'self'; manifest-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'; "
    "require-trusted-types-for 'script'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

std::string Lower(boost::beast::string_view text) {
    std::string lower(text.data(), text.size());
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

std::string HeadOf(const HttpResponse& response, size_t length, bool keep) {
    const auto reason = http::obsolete_reason(static_cast<http::status>(response.status));
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + " ";
    head.append(reason.data(), reason.size());
    head += "\r\nContent-Type: " + response.type + "\r\n";
    for (const auto& header : response.headers) {
        head += header.first + ": " + header.second + "\r\n";
    }
    if (!response.follow && response.status != 304) {
        head += "Content-Length: " + std::to_string(length) + "\r\n";
    }
    head += SAFETY;
    head += keep ? "\r\n" : "Connection: close\r\n\r\n";
    return head;
}

unsigned StatusOf(const boost::system::error_code& error) {
    return error == http::error::body_limit ? 413 : error == http::error::header_limit ? 431 : 400;
}

// An IPv4 client has the same name on a socket for both kinds of addresses.
std::string NameOf(const boost::asio::ip::address& address) {
    return address.is_v6() && address.to_v6().is_v4_mapped()
               ? boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6())
                     .to_string()
               : address.to_string();
}

}  // namespace

HttpSession::HttpSession(Owner& owner, boost::asio::ip::tcp::socket socket,
                         const TlsContext& context)
    : m_owner(owner), m_connection(std::move(socket), context), m_input(MAX_HEADER + 8192) {
    Error ignored;
    boost::asio::ip::tcp::socket& made = m_connection.GetSocket();
    m_peer = NameOf(made.remote_endpoint(ignored).address());
    m_client = m_peer;
    made.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    made.set_option(boost::asio::socket_base::send_buffer_size(SEND_BUFFER), ignored);
    Await(REQUEST_TIME);
}

// A handshake has as much time as a request.
void HttpSession::Start() {
    if (!m_connection.IsSecure()) {
        ReadRequest();
        return;
    }
    m_connection.Handshake([self = shared_from_this()](const Error& error) {
        if (error) {
            self->Close();
        } else if (self->IsOpen()) {
            self->ReadRequest();
        }
    });
}

void HttpSession::Await(std::chrono::seconds limit) {
    m_since = Clock::now();
    m_deadline = m_since + limit;
}

void HttpSession::Close() {
    if (IsOpen()) {
        Error ignored;
        m_connection.GetSocket().shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
        m_connection.GetSocket().close(ignored);
        m_owner.Remove(*this);
    }
}

void HttpSession::CutOff() {
    m_too_slow = m_too_slow || IsViewer();  // one that was dismissed was not
    Close();
}

// ---- requests ----

void HttpSession::ReadRequest() {
    m_parser.emplace();
    m_parser->header_limit(MAX_HEADER);
    m_parser->body_limit(MAX_BODY);
    Await(REQUEST_TIME);
    http::async_read(
        m_connection, m_input, *m_parser,
        [self = shared_from_this()](const Error& error, size_t) { self->OnRequest(error); });
}

void HttpSession::OnRequest(const Error& error) {
    if (!IsOpen()) {
        return;
    }
    if (!error) {
        Answer();
        return;
    }
    const bool malformed = error.category() == make_error_code(http::error::body_limit).category();
    if (!malformed || error == http::error::end_of_stream ||
        error == http::error::partial_message) {
        Close();
        return;
    }
    m_keep = false;
    Respond(Refuse(StatusOf(error), "the request can't be read: " + error.message()), false);
}

void HttpSession::Answer() {
    const bool head_only = m_parser->get().method() == http::verb::head;
    m_keep = m_parser->get().keep_alive() && m_parser->get().version() >= 11;
    HttpRequest request = TakeRequest();
    HttpResponse response;
    if (!ParseTarget(
            std::string_view(m_parser->get().target().data(), m_parser->get().target().size()),
            request)) {
        response = Refuse(400, "the address can't be read");
    } else if (m_parser->get().count(http::field::host) != 1) {
        response = Refuse(400, "exactly one Host is required");
    } else if (!Lower(m_parser->get()[http::field::transfer_encoding]).empty() &&
               !m_parser->get().chunked()) {
        m_keep = false;  // nobody knows where the next request begins
        response = Refuse(501, "this Transfer-Encoding is not known");
    } else {
        response = m_owner.Answer(request);
        m_client = request.peer;
    }
    if (response.later) {
        RespondLater(response, head_only);
    } else {
        Respond(std::move(response), head_only);
    }
}

void HttpSession::RespondLater(const HttpResponse& response, bool head_only) {
    Await(REQUEST_TIME);
    response.later([self = shared_from_this(), head_only](HttpResponse late) {
        if (self->IsOpen()) {
            self->Respond(std::move(late), head_only);
        }
    });
}

HttpRequest HttpSession::TakeRequest() {
    HttpRequest request;
    auto& message = m_parser->get();
    request.method = std::string(message.method_string().data(), message.method_string().size());
    request.method = request.method == "HEAD" ? "GET" : request.method;
    for (const auto& field : message) {
        const std::string name = Lower(field.name_string());
        const std::string value(field.value().data(), field.value().size());
        std::string& header = request.headers[name];
        // Of what proxies add, the last part counts, which may be in a header of its own.
        header = name == "x-forwarded-for" && !header.empty() ? header + "," + value : value;
    }
    request.body = std::move(message.body());
    request.peer = m_peer;
    request.secure = m_connection.IsSecure();
    return request;
}

// ---- responses ----

void HttpSession::Respond(HttpResponse response, bool head_only) {
    m_body = std::move(response.body);
    const bool fixed = response.fixed.data() != nullptr;
    boost::asio::const_buffer body =
        fixed ? boost::asio::buffer(response.fixed.data(), response.fixed.size())
              : boost::asio::buffer(m_body);
    const bool follows = response.follow && !head_only;
    m_keep = m_keep && !response.follow;
    m_head = HeadOf(response, body.size(), m_keep);
    if (head_only || response.status == 304) {
        body = boost::asio::const_buffer();
    }
    if (follows) {
        BeginViewing(response);
    }
    m_writing = true;
    Await(WRITE_TIME);
    const std::array<boost::asio::const_buffer, 2> parts = {boost::asio::buffer(m_head), body};
    boost::asio::async_write(
        m_connection, parts,
        [self = shared_from_this()](const Error& error, size_t) { self->OnWritten(error); });
}

void HttpSession::OnWritten(const Error& error) {
    m_writing = false;
    m_body.clear();
    if (error || !IsOpen()) {
        Close();
        return;
    }
    if (m_viewer && !m_ending) {
        m_deadline = Clock::time_point::max();
        Pump();
    } else if (m_keep) {
        m_body.shrink_to_fit();
        ReadRequest();
    } else {
        Close();
    }
}

// ---- viewers ----

void HttpSession::BeginViewing(const HttpResponse& response) {
    m_viewer = true;
    m_next = *response.follow;
    m_takes = response.takes;
    m_visit = response.visit;
    m_parser.reset();
    WatchForEnd();
}

// A viewer sends nothing; reading shows when its connection ends.
void HttpSession::WatchForEnd() {
    m_connection.async_read_some(boost::asio::buffer(m_ignored),
                                 [self = shared_from_this()](const Error& error, size_t) {
                                     if (error) {
                                         self->Close();
                                     } else {
                                         self->WatchForEnd();
                                     }
                                 });
}

void HttpSession::Pump() {
    const EventStream& stream = m_owner.Stream();
    if (!m_viewer || m_writing || m_ending || !IsOpen() ||
        (m_next == stream.Next() && m_last_words.empty())) {
        return;
    }
    m_head.clear();
    if (m_last_words.empty() && m_visit && (m_visit->ended || !m_visit->rights.MayReadAny())) {
        m_last_words = LastWords(LOGGED_OUT);
    }
    if (!stream.IsKept(m_next)) {
        m_last_words = SLOW;
        m_too_slow = true;
    }
    if (!m_last_words.empty()) {
        m_head = m_last_words;
        m_ending = true;
    } else {
        stream.Copy(m_next, MAX_CHUNK, m_takes, m_head);
    }
    if (m_head.empty()) {  // nothing of it is for this viewer
        return;
    }
    m_writing = true;
    Await(WRITE_TIME);
    boost::asio::async_write(
        m_connection, boost::asio::buffer(m_head),
        [self = shared_from_this()](const Error& error, size_t) { self->OnWritten(error); });
}

void HttpSession::Dismiss(const std::string& reason) {
    m_last_words = LastWords(reason);
    Pump();
}
