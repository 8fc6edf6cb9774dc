// The receiving end of the bus. Each part of the input is a byte that chooses the sender, followed
// by a datagram.
#include <array>
#include <map>

#include "fuzz/BusModel.h"
#include "fuzz/Check.h"
#include "fuzz/Net.h"
#include "fuzz/Script.h"
#include "msg/Message.h"
#include "rudp/RUdpLayer3Server.h"

namespace {

const uint16_t PORT = 2060;

void check_message(const CMessage& msg, const BusPacket& packet) {
    CHECK(msg.GetHost() == 0x7F000001);
    CHECK(msg.GetPort() == packet.result_port);
    CHECK(msg.GetLockID() == packet.lock_id);
    CHECK(msg.GetLockTID() == packet.lock_tid);
    CHECK(msg.GetMsgType() == packet.type);
    CHECK(msg.GetRel() == (packet.type != 0));
    CHECK(msg.GetItemCount() == packet.items.size());
    for (unsigned int i = 0; i < packet.items.size(); ++i) {
        CHECK(msg.GetItem(i)->m_nTag == packet.items[i].tag);
        CHECK(msg.GetItem(i)->m_nType == packet.items[i].type);
    }
}

unsigned long expected_error(const BusPacket& packet, bool repeated) {
    if (!packet.is_delivered || repeated) {
        return CRUdpLayer1Base::TIMED_OUT;
    }
    if (packet.payload_version != 2) {
        return CRUdpLayer1Base::BAD_PAYLOAD_VERSION;
    }
    return packet.is_message ? CRUdpLayer1Base::OK : CRUdpLayer1Base::BAD_PAYLOAD;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CRUdpLayer3Server server;
    static const bool open = server.Open(PORT, nullptr, nullptr, nullptr);
    static std::array<UdpPeer, 3> peers;
    CHECK(open);
    Clock::Advance(11, 0);  // the last input's senders are forgotten
    CMessage msg(16, 16);
    std::map<UdpPeer*, uint32_t> last_tids;
    for (const std::string& part : split_script(data, size)) {
        if (part.empty() || part.size() > 60000) {
            continue;
        }
        UdpPeer& peer = peers[static_cast<unsigned char>(part[0]) % peers.size()];
        const BusPacket packet(part.substr(1));
        const auto last = last_tids.find(&peer);
        const bool repeated = last != last_tids.end() && last->second == packet.tid;
        peer.Send(part.substr(1), PORT);
        await_readable(server.GetSocket());
        const bool received = server.WaitForMsg(&msg, 0);
        CHECK(server.GetLastError() == expected_error(packet, repeated));
        CHECK(received == (server.GetLastError() == CRUdpLayer1Base::OK));
        if (received) {
            check_message(msg, packet);
        }
        std::vector<std::string> answers;
        if (!packet.answer.empty()) {
            answers.push_back(packet.answer);
        }
        CHECK(peer.Take(answers.size()) == answers);
        if (packet.is_delivered) {
            last_tids[&peer] = packet.tid;
        }
    }
    return 0;
}
