#include "tools/server/Address.h"

#include <arpa/inet.h>

#include <stdexcept>

namespace {

const int ADDRESS_BITS = 32;

std::optional<uint32_t> ParseIp(const std::string& text) {
    in_addr address = {};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}

std::optional<int> ParseDecimal(const std::string& text, int most) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != text.npos ||
        std::stoi(text) > most) {
        return std::nullopt;
    }
    return std::stoi(text);
}

}  // namespace

std::optional<Endpoint> ParseEndpoint(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == text.npos || !ParseIp(text.substr(0, colon))) {
        return std::nullopt;
    }
    const std::optional<int> port = ParseDecimal(text.substr(colon + 1), UINT16_MAX);
    if (!port) {
        return std::nullopt;
    }
    return Endpoint{text.substr(0, colon), static_cast<uint16_t>(*port)};
}

std::optional<Network> ParseNetwork(const std::string& text) {
    const size_t slash = text.find('/');
    const std::optional<uint32_t> address = ParseIp(text.substr(0, slash));
    const std::optional<int> bits =
        slash == text.npos ? ADDRESS_BITS : ParseDecimal(text.substr(slash + 1), ADDRESS_BITS);
    if (!address || !bits) {
        return std::nullopt;
    }
    const Network network = {*address, *bits == 0 ? 0 : UINT32_MAX << (ADDRESS_BITS - *bits)};
    return network.Contains(*address) ? std::optional<Network>(network) : std::nullopt;
}

Endpoint TakeEndpoint(ConfigWords& words) {
    const std::string& text = words.Next("IP:PORT");
    const std::optional<Endpoint> endpoint = ParseEndpoint(text);
    if (!endpoint || endpoint->port == 0) {
        throw std::invalid_argument("not IP:PORT: " + text);
    }
    return *endpoint;
}

Network TakeNetwork(ConfigWords& words) {
    const std::string& text = words.Next("a network, such as 10.77.0.0/24");
    const std::optional<Network> network = ParseNetwork(text);
    if (!network) {
        throw std::invalid_argument("not a network, such as 10.77.0.0/24: " + text);
    }
    return *network;
}
