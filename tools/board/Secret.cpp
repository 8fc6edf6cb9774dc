#include "tools/board/Secret.h"

#include <crypt.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "tools/base/ErrorText.h"

namespace {

const char* const METHOD = "$y$";  // yescrypt, at the cost that the library recommends

// crypt() reads up to a NUL, so that one with a NUL would be the same as what is before it.
bool IsAcceptable(const std::string& password) {
    return password.size() <= MAX_PASSWORD && password.find('\0') == password.npos;
}

// Empty on failure.
std::string Crypt(const std::string& password, const std::string& setting) {
    const auto data = std::make_unique<crypt_data>();
    const char* const hash = crypt_r(password.c_str(), setting.c_str(), data.get());
    return hash == nullptr || hash[0] == '*' ? "" : hash;
}

std::string Hex(const unsigned char* bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += "0123456789abcdef"[bytes[i] >> 4];
        text += "0123456789abcdef"[bytes[i] & 15];
    }
    return text;
}

}  // namespace

std::string HashPassword(const std::string& password) {
    const std::unique_ptr<char, decltype(&free)> setting(crypt_gensalt_ra(METHOD, 0, nullptr, 0),
                                                         &free);
    std::string hash = setting && IsAcceptable(password) ? Crypt(password, setting.get()) : "";
    if (hash.empty()) {
        throw std::runtime_error("the password can't be hashed: " + ErrorText(errno));
    }
    return hash;
}

bool IsPassword(const std::string& password, const std::string& hash) {
    const bool acceptable = IsAcceptable(password);
    return IsSame(Crypt(acceptable ? password : "", hash), hash) && acceptable && !hash.empty();
}

bool IsPasswordHash(const std::string& text) {
    return text[0] == '$' && crypt_checksalt(text.c_str()) == CRYPT_SALT_OK;
}

std::string MakeToken() {
    std::array<unsigned char, 32> bytes = {};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error("no random numbers: " + ErrorText(errno));
    }
    std::array<unsigned char, 45> text = {};
    EVP_EncodeBlock(text.data(), bytes.data(), bytes.size());
    std::string token(text.begin(), text.begin() + 43);
    for (char& c : token) {
        c = c == '+' ? '-' : c == '/' ? '_' : c;
    }
    return token;
}

std::string HashToken(const std::string& token) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes = {};
    unsigned size = 0;
    if (EVP_Digest(token.data(), token.size(), bytes.data(), &size, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("the token can't be hashed");
    }
    return "sha256:" + Hex(bytes.data(), size);
}

bool IsSame(const std::string& a, const std::string& b) {
    unsigned char difference = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        difference = static_cast<unsigned char>(difference | (a[i] ^ b[i]));
    }
    return difference == 0;
}
