// What the daemon must do with a datagram from the bus, written as simply as possible: the
// reference for the fuzzers.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

struct BusItem {
    uint32_t tag;
    uint8_t type;
    uint64_t number;

    // The pin of a channel: 0 to 4 of the output, 5 to 9 of the input, or npos.
    size_t Pin() const {
        const std::string circuits("\x08\x07\x06\x05\x04\x0D\x0C\x0B\x0A\x09");
        return circuits.find(static_cast<char>(tag & 0xFF));
    }

    // The line for TQRD when it is written to this channel.
    std::string WriteLine(int channel) const {
        if (Pin() > 4) {
            return "";
        }
        const unsigned int value = type == 7 ? static_cast<unsigned int>(number) : 0;
        std::string state = "xxxxx";
        state[Pin()] = (value & 0x40) != 0 ? 'L' : 'H';
        const unsigned int duration = (value & 0x1F) * ((value & 0x80) != 0 ? 10 : 250);
        return "GPO " + std::to_string(channel) + " " + state +
               (duration != 0 ? " DURATION:" + std::to_string(duration) : "") + "\n";
    }
};

// Reads numbers, most significant byte first. IsGood() turns false with a read past the end.
class BusReader {
public:
    explicit BusReader(const std::string& bytes) : m_Bytes(bytes) {}

    uint64_t Number(size_t size) {
        uint64_t number = 0;
        for (size_t i = 0; i < size; ++i, ++m_Pos) {
            number = number << 8 |
                     (m_Pos < m_Bytes.size() ? static_cast<unsigned char>(m_Bytes[m_Pos]) : 0);
        }
        return number;
    }
    void Skip(size_t size) { m_Pos += size; }
    bool IsGood() const { return m_Pos <= m_Bytes.size(); }
    bool IsAtEnd() const { return m_Pos == m_Bytes.size(); }

private:
    const std::string& m_Bytes;
    size_t m_Pos = 0;
};

// One datagram and its effects, unless it is a repetition.
struct BusPacket {
    explicit BusPacket(const std::string& datagram) {
        BusReader header(datagram);
        layer = static_cast<uint8_t>(header.Number(1));
        type = static_cast<uint8_t>(header.Number(1));
        payload_version = static_cast<uint8_t>(header.Number(1));
        version = static_cast<uint8_t>(header.Number(1));
        tid = static_cast<uint32_t>(header.Number(4));
        result_port = static_cast<uint16_t>(header.Number(2));
        lock_id = static_cast<uint16_t>(header.Number(2));
        lock_tid = static_cast<uint32_t>(header.Number(4));
        if (header.IsGood()) {
            const bool refused = layer < 3;
            is_delivered = !refused && version == 7;
            if (refused || (is_delivered && type != 0)) {
                answer = std::string(1, '\0') + (refused ? 'N' : 'A') + std::string("\0\7", 2) +
                         datagram.substr(4, 4);
            }
            const std::string payload = datagram.substr(16);
            is_message = is_delivered && payload_version == 2 && ReadItems(payload);
        }
    }

    // The lines for TQRD. numbers: the channel of each address; other channels have none.
    std::string Lines(const std::map<uint32_t, int>& numbers) const {
        std::string lines;
        for (const BusItem& item : items) {
            const auto channel = numbers.find(item.tag >> 8);
            if (IsWrite() && channel != numbers.end()) {
                lines += item.WriteLine(channel->second);
            }
        }
        return lines;
    }

    // How many pins of channels with these addresses a read requests.
    size_t PinsRead(const std::map<uint32_t, int>& numbers) const {
        std::set<uint32_t> pins;
        for (const BusItem& item : items) {
            if (IsRead() && numbers.count(item.tag >> 8) != 0 && item.Pin() != std::string::npos) {
                pins.insert(item.tag);
            }
        }
        return pins.size();
    }

    bool IsRead() const { return id == 0x52454144; }
    bool IsWrite() const { return id == 0x57524E49 || id == 0x5752494E; }

    // Which of several items with the same tag is found depends on earlier lookups.
    bool HasTagTwice() const {
        std::set<uint32_t> tags;
        for (const BusItem& item : items) {
            tags.insert(item.tag);
        }
        return tags.size() != items.size();
    }

    uint8_t layer, type, payload_version, version;
    uint32_t tid, lock_tid;
    uint16_t result_port, lock_id;
    bool is_delivered = false;
    std::string answer;       // to its sender
    bool is_message = false;  // its payload is one message
    uint32_t id = 0;          // of that message, as below
    std::vector<BusItem> items;

private:
    bool ReadItems(const std::string& payload) {
        if (payload.empty()) {
            return true;  // an empty message
        }
        // Sizes of numbers, and of the elements after a count, by type.
        static const std::map<uint8_t, size_t> numbers = {{1, 4}, {7, 1}, {8, 2}, {9, 8}};
        static const std::map<uint8_t, size_t> elements = {{2, 1}, {3, 1}, {4, 2}, {5, 4}, {6, 1}};
        BusReader reader(payload);
        id = static_cast<uint32_t>(reader.Number(4));
        for (uint64_t left = reader.Number(2); left > 0 && reader.IsGood(); --left) {
            BusItem item = {static_cast<uint32_t>(reader.Number(4)),
                            static_cast<uint8_t>(reader.Number(1)), 0};
            if (numbers.count(item.type) != 0) {
                item.number = reader.Number(numbers.at(item.type));
            } else {
                const size_t count = static_cast<size_t>(reader.Number(2));
                reader.Skip(elements.count(item.type) != 0 ? count * elements.at(item.type) : 0);
            }
            items.push_back(item);
        }
        if (!reader.IsAtEnd()) {
            items.clear();
        }
        return reader.IsAtEnd();
    }
};
