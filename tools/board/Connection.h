// A client's connection, with TLS or without.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <memory>
#include <optional>
#include <string>
#include <utility>

using TlsContext = std::shared_ptr<boost::asio::ssl::context>;

// For TLS 1.2 and later. Throws std::runtime_error with the file that can't be used, and why.
TlsContext LoadTls(const std::string& certificate, const std::string& key);

// A stream for Asio and Beast: what is read and written passes through TLS, if there is a context.
class Connection {
public:
    using Socket = boost::asio::ip::tcp::socket;
    using executor_type = Socket::executor_type;

    // The context is needed only here. Null: no TLS.
    Connection(Socket socket, const TlsContext& context) : m_socket(std::move(socket)) {
        if (context != nullptr) {
            m_tls.emplace(m_socket, *context);
        }
    }

    Socket& GetSocket() { return m_socket; }
    bool IsSecure() const { return m_tls.has_value(); }

    // Only with TLS.
    template <typename Handler>
    void Handshake(Handler&& handler) {
        m_tls->async_handshake(boost::asio::ssl::stream_base::server,
                               std::forward<Handler>(handler));
    }

    // The names are Asio's.
    executor_type get_executor() { return m_socket.get_executor(); }

    template <typename Buffers, typename Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        if (m_tls) {
            m_tls->async_read_some(buffers, std::forward<Handler>(handler));
        } else {
            m_socket.async_read_some(buffers, std::forward<Handler>(handler));
        }
    }

    template <typename Buffers, typename Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        if (m_tls) {
            m_tls->async_write_some(buffers, std::forward<Handler>(handler));
        } else {
            m_socket.async_write_some(buffers, std::forward<Handler>(handler));
        }
    }

private:
    Socket m_socket;
    std::optional<boost::asio::ssl::stream<Socket&>> m_tls;
};
