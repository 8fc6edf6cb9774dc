#include "tools/conform/PeerTrial.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "rudp/RUdpMsg.h"
#include "tools/base/ErrorText.h"

namespace {

const unsigned char LAYER = 3;
const unsigned char PACKET_VERSION = 7;
const size_t MAX_PACKET = 65536;
const size_t MOST_REMEMBERED = 1000;
const double PEER_PATIENCE = 3;  // seconds in which a peer repeats, at the latest
const int UNDER_WAY = 1;         // copies that a peer may send before it reads the answer

std::string HexText(const std::string& bytes) {
    const char* const digits = "0123456789ABCDEF";
    const size_t most = 80;
    std::string text;
    for (size_t i = 0; i < std::min(bytes.size(), most); ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text + (bytes.size() > most ? "..." : "");
}

// Keeps the first failure.
void Judge(Outcome& outcome, bool is_met, const char* expected, const std::string& packet) {
    if (outcome.verdict == Verdict::NotTried) {
        outcome = {};
    }
    if (!is_met && outcome.verdict == Verdict::Met) {
        outcome = {Verdict::NotMet, {}, expected, HexText(packet)};
    }
}

// A peer that floods the bus gets no more memory.
template <typename Map>
void Bound(Map& map) {
    if (map.size() >= MOST_REMEMBERED) {
        map.clear();
    }
}

Descriptor OpenBus(const BusSettings& settings) {
    Descriptor sock(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(BUS_PORT);
    ip_mreq request = {};
    request.imr_multiaddr.s_addr = htonl(settings.group);
    request.imr_interface.s_addr = FindInterface(settings.iface, settings.group).address;
    // Not shared: a daemon of this host would get what is for this program.
    if (!sock.IsOpen() ||
        bind(sock.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw BusError("can't open port 2060: " + ErrorText(errno) +
                       (errno == EADDRINUSE ? "; stop the daemon of this host first" : ""));
    }
    if (setsockopt(sock.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
        throw BusError("can't join the group: " + ErrorText(errno));
    }
    return sock;
}

// Replies go to the group, also to one peer.
BusSettings ToGroup(BusSettings settings) {
    settings.to.reset();
    return settings;
}

bool IsPin(uint32_t tag) {
    return tag < TAG_REQUEST_DATA;
}

bool IsOutput(uint32_t tag) {
    const uint32_t circuit = tag & 0xFF;
    return circuit <= FIRST_OUTPUT_CIRCUIT && circuit > FIRST_OUTPUT_CIRCUIT - PIN_COUNT;
}

}  // namespace

PeerTrial::PeerTrial(const BusSettings& bus, const ConformSettings& settings)
    : m_settings(bus), m_seconds(settings.listen), m_link(ToGroup(bus)), m_socket(OpenBus(bus)) {}

void PeerTrial::Run() {
    std::string packet(MAX_PACKET, '\0');
    const TimePoint end = After(m_seconds);
    while (Now() < end) {
        pollfd ready = {m_socket.Get(), POLLIN, 0};
        poll(&ready, 1, MillisecondsUntil(end));
        sockaddr_in from = {};
        socklen_t size = sizeof from;
        const ssize_t got = recvfrom(m_socket.Get(), &packet[0], packet.size(), 0,
                                     reinterpret_cast<sockaddr*>(&from), &size);
        const uint32_t host = ntohl(from.sin_addr.s_addr);
        if (got < 0 || (m_host != 0 && host != m_host) || host != m_settings.to.value_or(host)) {
            continue;
        }
        m_host = host;
        Take(packet.substr(0, static_cast<size_t>(got)), ntohs(from.sin_port));
    }
    if (m_host == 0) {
        throw NobodyThere("no peer has sent anything to port 2060", 0);
    }
}

void PeerTrial::Take(const std::string& bytes, uint16_t port) {
    std::string copy = bytes;
    RUdpMsg packet(reinterpret_cast<unsigned char*>(&copy[0]), copy.size());
    const bool is_packet = bytes.size() >= RUdpMsg::HEADER_SIZE && packet.GetLayer() == LAYER &&
                           packet.GetRUdpVersion() == PACKET_VERSION &&
                           packet.GetPayloadVersion() == CMsg2::GetVer() &&
                           (packet.GetMsgType() == 0 || packet.GetMsgType() == 'M');
    Judge(m_header, is_packet, "a header of 16 bytes: layer 3, type 00 or 4D, versions 2 and 7",
          bytes);
    if (!is_packet) {
        return;
    }
    Bound(m_last);
    Bound(m_low);
    const std::string before = m_last[port];
    const bool is_repetition = before == bytes;
    const bool has_old_number =
        before.size() >= RUdpMsg::HEADER_SIZE && before.compare(4, 4, bytes, 4, 4) == 0;
    Judge(m_numbers, packet.GetMsgTID() != 0 && (is_repetition || !has_old_number),
          "another transaction ID than that of the packet before, and not 0", bytes);
    m_last[port] = bytes;
    if (packet.GetMsgType() == 'M') {
        TakeReliable(bytes, port);
    }
    CMessage message(16, 16);
    const std::string payload = bytes.substr(RUdpMsg::HEADER_SIZE);
    const bool is_whole =
        !payload.empty() && message.SetData(payload.data(), payload.size()) == payload.size();
    const Kind kind = KindOf(message);
    Judge(m_message, is_whole && (kind == Kind::Write || kind == Kind::Read),
          "one message, WRNI, WRIN or READ", bytes);
    if (kind == Kind::Write) {
        TakeWrite(message, bytes);
    } else if (kind == Kind::Read && !is_repetition) {
        TakeRead(message, bytes);
    }
}

void PeerTrial::TakeReliable(const std::string& packet, uint16_t port) {
    std::string copy = packet;
    const RUdpMsg header(reinterpret_cast<unsigned char*>(&copy[0]), copy.size());
    const size_t count = m_reliable.size();
    const std::pair key(port, static_cast<uint32_t>(header.GetMsgTID()));
    if (count >= MOST_REMEMBERED && m_reliable.count(key) == 0) {  // enough to judge
        Reliable another;
        another.bytes = packet;
        return Answer(another, port, true);
    }
    const auto [at, is_new] = m_reliable.try_emplace(key);
    Reliable& message = at->second;
    if (is_new) {
        message.bytes = packet;
        message.heard = Now();
        message.is_refused = count == 1;
    }
    ++message.copies;
    message.has_changed = message.has_changed || message.bytes != packet;
    message.late_copies += message.answered ? 1 : 0;
    if (count > 0 || message.copies > 1) {
        Answer(message, port, !message.is_refused);
    }
}

void PeerTrial::Answer(Reliable& message, uint16_t port, bool positive) {
    unsigned char bytes[RUdpMsg::HEADER_SIZE] = {};
    RUdpMsg answer(bytes, sizeof bytes);
    const std::string& packet = message.bytes;
    answer.SetMsgType(positive ? 'A' : 'N');
    answer.SetRUdpVersion(PACKET_VERSION);
    answer.SetMsgTID(answer.ntoh_dw(reinterpret_cast<const unsigned char*>(packet.data()) + 4));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(m_host);
    sendto(m_socket.Get(), bytes, RUdpMsg::ACK_SIZE, 0, reinterpret_cast<sockaddr*>(&to),
           sizeof to);
    if (!message.answered) {
        message.answered = Now();
    }
}

void PeerTrial::TakeWrite(const CMessage& message, const std::string& packet) {
    std::set<uint32_t> tags;
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *message.GetItem(i);
        if (!IsPin(item.m_nTag)) {
            continue;
        }
        Judge(m_writes, item.m_nType == CMsg2::ITEM_BYTE && IsOutput(item.m_nTag),
              "byte items for circuits 4 to 8", packet);
        Judge(m_writes, tags.insert(item.m_nTag).second, "each pin once", packet);
        const PinValue value = PinValueOf(Kind::Write, item);
        if (value.level && value.duration_ms == 0) {
            m_low[item.m_nTag] = *value.level == Level::Low ? 1 : 0;
        }
    }
}

void PeerTrial::TakeRead(CMessage& message, const std::string& packet) {
    const CMsg2::Node* const id = FindItem(message, TAG_REQUEST_ID, CMsg2::ITEM_DWORD);
    Judge(m_request_id, id != nullptr && id->m_Value.m_nDword != 0,
          "an item FFFFFFFF, a dword that is not 0", packet);
    if (!m_read_at) {
        m_first_read = packet;
        m_read_at = Now();
        return;
    }
    m_was_asked_again = true;
    CMessage reply(16, 16);
    reply.SetId(ID_REPORT);
    reply.SetDword(TAG_REFERS_TO, message.GetDword(TAG_REQUEST_ID));
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const uint32_t tag = message.GetItem(i)->m_nTag;
        if (IsPin(tag)) {
            reply.SetByte(tag, m_low[tag]);
        }
    }
    reply.SetByte(TAG_REPLY_KIND, REPLY_TO_READ);
    reply.SetQword(TAG_REQUEST_DATA, message.GetQword(TAG_REQUEST_DATA));
    reply.SetMsgType(0);
    m_link.Send(reply, m_settings.listen_port, false);
    m_link.Send(reply, m_settings.listen_port, false);
}

Outcome PeerTrial::Repeat() const {
    Outcome outcome = NotTried("it sent no message with acknowledgement");
    for (const auto& [key, message] : m_reliable) {
        if (message.is_refused) {
            continue;
        }
        Judge(outcome, !message.has_changed, "the same packet again", message.bytes);
        if (message.copies == 1 && !message.answered) {
            if (Now() < Later(message.heard, PEER_PATIENCE)) {
                return NotTried("there was no time to wait for a repetition");
            }
            Judge(outcome, false, "the packet again, as there was no acknowledgement",
                  message.bytes);
        }
    }
    return outcome;
}

Outcome PeerTrial::Stop() const {
    Outcome outcome = NotTried("it sent no message that was acknowledged");
    for (const auto& [key, message] : m_reliable) {
        if (message.answered && !message.is_refused) {
            Judge(outcome, message.late_copies <= UNDER_WAY,
                  "no packet again after the acknowledgement", message.bytes);
        }
    }
    return outcome;
}

Outcome PeerTrial::Refused() const {
    Outcome outcome = NotTried("it sent fewer than two messages with acknowledgement");
    for (const auto& [key, message] : m_reliable) {
        if (message.is_refused) {
            Judge(outcome, message.late_copies <= UNDER_WAY, "no packet again after the refusal",
                  message.bytes);
        }
    }
    return outcome;
}

Outcome PeerTrial::AskAgain() const {
    if (!m_read_at) {
        return NotTried("it did not read");
    }
    if (!m_was_asked_again && Now() < Later(*m_read_at, PEER_PATIENCE)) {
        return NotTried("there was no time to wait for a second read");
    }
    Outcome outcome;
    Judge(outcome, m_was_asked_again, "a second read, as there was no reply", m_first_read);
    return outcome;
}
