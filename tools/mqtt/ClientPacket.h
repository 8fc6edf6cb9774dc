// What the bridge and its MQTT client, a process of its own, tell each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Between two processes of one program, over a SOCK_SEQPACKET socket. Several may travel as one
// packet of the socket, so that a burst wakes the other side once. The texts belong to somebody
// else.
struct ClientPacket {
    enum class Type : uint8_t {
        // From the client: that it is connected, a received message, an acknowledgement, a text for
        // the log, and why it ends.
        Connected,
        Received,
        Acknowledged,
        Note,
        Ended,
        // To the client.
        Publish,
        Subscribe,
        Unsubscribe,
        Leave,
    };

    static constexpr uint8_t RETAINED = 1;
    static constexpr uint8_t ACKNOWLEDGE = 2;
    static constexpr uint8_t EXPIRES = 4;

    Type type;
    uint8_t flags = 0;    // of Subscribe: those of MQTT
    uint32_t number = 0;  // of what is to be acknowledged; of Received: seconds until it expires
    std::string_view topic{};
    std::string_view payload{};  // or the text of Note and Ended
    std::string_view response_topic{};
    std::string_view correlation{};
};

// Larger MQTT packets are refused, by the broker if it obeys. So no ClientPacket is larger than its
// bound, and neither is what travels as one packet of the socket.
constexpr size_t LARGEST_MQTT_PACKET = 65536;
constexpr size_t LARGEST_CLIENT_PACKET = LARGEST_MQTT_PACKET + 64;

// The encoded size, in bytes.
size_t SizeOf(const ClientPacket& packet);

// Appends the packet.
void Encode(const ClientPacket& packet, std::string& data);

// Takes the first packet off data, which its texts are part of. None if it is malformed: the client
// may have been taken over by what it received.
std::optional<ClientPacket> Decode(std::string_view& data);
