#include "tools/mqtt/ClientPacket.h"

#include <cstring>

namespace {

const size_t HEAD = 2 + sizeof(uint32_t);  // type, flags and number

void AppendNumber(std::string& data, uint32_t number) {
    data.append(reinterpret_cast<const char*>(&number), sizeof number);
}

uint32_t NumberAt(const char* data) {
    uint32_t number = 0;
    memcpy(&number, data, sizeof number);
    return number;
}

// Takes a text off data. False if there is none.
bool TakeText(std::string_view& data, std::string_view& text) {
    if (data.size() < sizeof(uint32_t)) {
        return false;
    }
    const size_t size = NumberAt(data.data());
    data.remove_prefix(sizeof(uint32_t));
    if (size > data.size()) {
        return false;
    }
    text = data.substr(0, size);
    data.remove_prefix(size);
    return true;
}

}  // namespace

size_t SizeOf(const ClientPacket& packet) {
    return HEAD + 4 * sizeof(uint32_t) + packet.topic.size() + packet.payload.size() +
           packet.response_topic.size() + packet.correlation.size();
}

void Encode(const ClientPacket& packet, std::string& data) {
    data += static_cast<char>(packet.type);
    data += static_cast<char>(packet.flags);
    AppendNumber(data, packet.number);
    for (const std::string_view text :
         {packet.topic, packet.payload, packet.response_topic, packet.correlation}) {
        AppendNumber(data, static_cast<uint32_t>(text.size()));
        data += text;
    }
}

std::optional<ClientPacket> Decode(std::string_view& data) {
    if (data.size() < HEAD ||
        static_cast<uint8_t>(data[0]) > static_cast<uint8_t>(ClientPacket::Type::Leave)) {
        return std::nullopt;
    }
    ClientPacket packet{};
    packet.type = static_cast<ClientPacket::Type>(data[0]);
    packet.flags = static_cast<uint8_t>(data[1]);
    packet.number = NumberAt(data.data() + 2);
    data.remove_prefix(HEAD);
    for (std::string_view* text :
         {&packet.topic, &packet.payload, &packet.response_topic, &packet.correlation}) {
        if (!TakeText(data, *text)) {
            return std::nullopt;
        }
    }
    return packet;
}
