#include "tests/world/Bus.h"

#include <set>

#include "fuzz/BusModel.h"
#include "tests/world/Peers.h"

void Bus::Act() {
    // A receiver that hashes into 17 lists keeps these in one of them.
    const uint32_t host = 0x0A000014 + 17 * m_Random.Below(3);
    const Endpoint at = {host, static_cast<uint16_t>(1024 + 17 * m_Random.Below(3))};
    const Endpoint to = {m_Random.OneIn(4) ? m_World.device_ip : GROUP, REQUEST_PORT};
    Sender& sender = m_Senders[at];
    const bool is_new = sender.last.empty() || !m_Random.OneIn(6);
    m_World.Event(is_new ? "packet" : "packet repeated");
    if (is_new) {
        sender.last = Packet(sender);
    }
    m_World.Send(at, to, sender.last);
    if (m_Random.OneIn(6)) {
        const Micros delay = m_Random.Time(15 * SECOND);
        m_World.After(delay, [this, at, to, bytes = sender.last] { m_World.Send(at, to, bytes); });
    }
}

void Bus::Crowd() {
    const uint32_t count = 20 + m_Random.Below(60);
    for (uint32_t i = 0; i < count; ++i) {
        Sender sender = {m_Random.Below(1000)};
        const Endpoint at = {0x0A000100 + i, static_cast<uint16_t>(2000 + i % 7)};
        m_World.Send(at, {GROUP, REQUEST_PORT}, Packet(sender));
    }
}

std::string Bus::Message() {
    const uint32_t id =
        m_Random.Of({0x57524E49U, 0x5752494EU, 0x52454144U, 0x52454144U, 0x494E4449U});
    uint32_t left = m_Random.OneIn(30) ? 17 + m_Random.Below(40) : 1 + m_Random.Below(5);
    std::set<uint32_t> tags;
    std::string items;
    if (m_Random.OneIn(2)) {
        tags = {0xFFFFFFFF, 0xFFFFFFFC};
        items = big_endian(0xFFFFFFFF, 4) + big_endian(0x0100000000 + m_Random.Below(99), 5);
        items += big_endian(0xFFFFFFFC, 4) + big_endian(9, 1) + big_endian(m_Random.Below(99), 8);
    }
    for (; left > 0; --left) {
        const uint32_t address = m_Tqrd.AnyAddress();
        const uint32_t tag = address << 8 | m_Random.Of({4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u,
                                                         8u, 13u, 3u, 14u, 0u, 255u});
        if (tags.insert(tag).second) {
            items += Item(tag);
        }
    }
    return big_endian(id, 4) + big_endian(tags.size(), 2) + items;
}

// Nearly always a byte, as for pins.
std::string Bus::Item(uint32_t tag) {
    const std::string head = big_endian(tag, 4);
    const uint32_t type = m_Random.OneIn(8) ? m_Random.Below(12) : 7;
    const size_t count = m_Random.Below(4);
    std::string counted = head + big_endian(type, 1) + big_endian(count, 2);
    switch (type) {
        case 1:
            return head + big_endian(0x0100000000 + m_Random.Below(1000), 5);
        case 2:
            return counted + (count == 0 ? "" : std::string(count - 1, 'a') + '\0');
        case 3:
        case 4:
        case 5:
            return counted + std::string(count << (type - 3), '\7');
        case 6:
            return head + std::string("\6\0\6INDI\0\0", 9);
        case 7:
            return head + "\7" + big_endian(m_Random.Below(256), 1);
        case 8:
            return head + std::string("\10\1\2", 3);
        case 9:
            return head + big_endian(9, 1) + big_endian(m_Random.Below(1000), 8);
        default:
            return counted;
    }
}

std::string Bus::Packet(Sender& sender) {
    std::string packet = std::string("\3\0\2\7", 4) + big_endian(++sender.tid, 4);
    packet += big_endian(m_Random.Below(100), 8);
    packet += Message();
    if (m_Random.OneIn(4)) {
        packet[1] = m_Random.OneIn(8) ? 'X' : 'M';
    }
    if (m_Random.OneIn(20)) {
        char& field = packet[m_Random.Below(4)];
        field = m_Random.Of({'\0', '\1', '\2', '\4', '\6', '\10'});
    }
    return m_Random.OneIn(20) ? Damaged(packet) : packet;
}

// Which of two items with the same tag the daemon finds is not modelled.
std::string Bus::Damaged(const std::string& packet) {
    std::string damaged = packet;
    const uint32_t at = m_Random.Below(static_cast<uint32_t>(packet.size()));
    if (m_Random.OneIn(2)) {
        damaged.resize(at);
    } else {
        damaged[at] = static_cast<char>(damaged[at] ^ 1 << m_Random.Below(8));
    }
    return BusPacket(damaged).HasTagTwice() ? packet : damaged;
}

OtherDevice::OtherDevice(World& world) : m_World(world) {
    world.receivers[{OTHER_DEVICE, REQUEST_PORT}] = [this](const Endpoint& from,
                                                           const std::string& bytes) {
        if (bytes.size() >= 16 && bytes[1] == 'M') {
            Answer(from, bytes);
        }
    };
}

void OtherDevice::Answer(const Endpoint& from, const std::string& packet) {
    Endpoint at = {OTHER_DEVICE, REQUEST_PORT};
    std::string answer = std::string("\0N\0\7", 4) + packet.substr(4, 4);
    m_World.OneOf({{8, nullptr, [] {}},
                   {3, nullptr, [&] { answer[1] = 'A'; }},
                   {1, nullptr, [&] { answer += "more"; }},
                   {1, nullptr, [&] { answer.clear(); }},
                   {1, "answer of another type", [&] { answer[1] = 'M'; }},
                   {1, "answer of another version", [&] { answer[3] = 6; }},
                   {1, "answer to another message", [&] { answer[4] ^= 1; }},
                   {1, "answer too short", [&] { answer.resize(7); }},
                   {1, "answer from another port", [&] { at.port = ANSWER_PORT; }}});
    if (!answer.empty()) {
        m_World.Send(at, from, answer);
    }
}
