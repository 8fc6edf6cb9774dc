#include "tools/board/Connection.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "tools/base/ErrorText.h"
#include "tools/board/UsersFile.h"

namespace ssl = boost::asio::ssl;

namespace {

void ThrowIf(const boost::system::error_code& error, const std::string& file) {
    if (error) {
        throw std::runtime_error(file + ": " + error.message());
    }
}

}  // namespace

TlsContext LoadTls(const std::string& certificate, const std::string& key) {
    CheckPrivate(key, "the key");
    for (const std::string& file : {certificate, key}) {
        if (access(file.c_str(), R_OK) != 0) {
            throw std::runtime_error(file + ": " + ErrorText(errno));
        }
    }
    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    context->set_options(ssl::context::no_sslv2 | ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                         ssl::context::no_tlsv1_1 | SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context->native_handle(), SSL_MODE_RELEASE_BUFFERS);
    // Of a key with a password, which nobody could type.
    context->set_password_callback(
        [](size_t, ssl::context::password_purpose) { return std::string(); });
    boost::system::error_code error;
    context->use_certificate_chain_file(certificate, error);
    ThrowIf(error, certificate);
    context->use_private_key_file(key, ssl::context::pem, error);
    ThrowIf(error, key);
    return context;
}
