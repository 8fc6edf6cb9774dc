// Plays a device on the bus to a peer, and records what the peer does.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tools/base/Descriptor.h"
#include "tools/conform/Conform.h"

// Every address exists, with all pins high until they are written. It is a bad device on purpose:
// it does not acknowledge the first message until it comes again, refuses the second, and leaves
// the first read without a reply.
class PeerTrial {
public:
    // Opens port 2060. Throws BusError if that is impossible, as while a daemon runs.
    PeerTrial(const BusSettings& bus, const ConformSettings& settings);

    // Hears the peer for the time of the settings. Throws NobodyThere if nothing came.
    void Run();

    Outcome Header() const { return m_header; }
    Outcome Message() const { return m_message; }
    Outcome Numbers() const { return m_numbers; }
    Outcome Repeat() const;
    Outcome Stop() const;
    Outcome Refused() const;
    Outcome RequestId() const { return m_request_id; }
    Outcome AskAgain() const;
    Outcome Writes() const { return m_writes; }

private:
    // A message with acknowledgement.
    struct Reliable {
        std::string bytes;
        TimePoint heard;
        int copies = 0;
        std::optional<TimePoint> answered;
        bool is_refused = false;
        int late_copies = 0;  // after the answer
        bool has_changed = false;
    };

    void Take(const std::string& bytes, uint16_t port);
    void TakeReliable(const std::string& packet, uint16_t port);
    void Answer(Reliable& message, uint16_t port, bool positive);
    void TakeWrite(const CMessage& message, const std::string& packet);
    void TakeRead(CMessage& message, const std::string& packet);

    const BusSettings m_settings;
    const double m_seconds;
    BusLink m_link;
    Descriptor m_socket;
    uint32_t m_host = 0;                                           // of the peer; 0: none yet
    std::map<uint16_t, std::string> m_last;                        // packet, by port
    std::map<std::pair<uint16_t, uint32_t>, Reliable> m_reliable;  // by port and transaction ID
    std::map<uint32_t, uint8_t> m_low;   // 1 for pins that are low, by tag
    std::string m_first_read;            // which gets no reply
    std::optional<TimePoint> m_read_at;  // when it came
    bool m_was_asked_again = false;
    Outcome m_header, m_message, m_numbers;
    Outcome m_request_id = ::NotTried("it did not read");
    Outcome m_writes = ::NotTried("it did not write");
};
