#include "tools/mqtt/ClientPacket.h"

#include <cstring>

namespace {

const size_t HEAD = 2 + sizeof(uint32_t);  // type, flags and number

void Append(std::string& data, const std::string& text) {
    const auto size = static_cast<uint32_t>(text.size());
    data.append(reinterpret_cast<const char*>(&size), sizeof size);
    data += text;
}

// Moves a text from data to text. False if there is none.
bool Take(const char*& data, size_t& left, std::string& text) {
    uint32_t size = 0;
    if (left < sizeof size) {
        return false;
    }
    memcpy(&size, data, sizeof size);
    data += sizeof size;
    left -= sizeof size;
    if (size > left) {
        return false;
    }
    text.assign(data, size);
    data += size;
    left -= size;
    return true;
}

}  // namespace

std::string Encode(const ClientPacket& packet) {
    std::string data;
    data += static_cast<char>(packet.type);
    data += static_cast<char>(packet.flags);
    data.append(reinterpret_cast<const char*>(&packet.number), sizeof packet.number);
    for (const std::string* text :
         {&packet.topic, &packet.payload, &packet.response_topic, &packet.correlation}) {
        Append(data, *text);
    }
    return data;
}

std::optional<ClientPacket> Decode(const char* data, size_t size) {
    if (size < HEAD ||
        static_cast<uint8_t>(data[0]) > static_cast<uint8_t>(ClientPacket::Type::Leave)) {
        return std::nullopt;
    }
    ClientPacket packet{};
    packet.type = static_cast<ClientPacket::Type>(data[0]);
    packet.flags = static_cast<uint8_t>(data[1]);
    memcpy(&packet.number, data + 2, sizeof packet.number);
    data += HEAD;
    size -= HEAD;
    for (std::string* text :
         {&packet.topic, &packet.payload, &packet.response_topic, &packet.correlation}) {
        if (!Take(data, size, *text)) {
            return std::nullopt;
        }
    }
    return packet;
}
