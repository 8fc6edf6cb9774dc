// Every change of one bit and every truncation of what peers send: does just what it now says.

#include <arpa/inet.h>

#include <regex>
#include <string>

#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "tests/app/InProcess.h"
#include "tests/support/Clock.h"
#include "tests/support/Host.h"
#include "tests/support/captures.h"

namespace {

// Calls act with the bytes, cut before each of them and with each of their bits changed, and with
// the number of the byte at which they differ.
template <class Act>
void for_each_change(const std::string& bytes, Act act) {
    act(bytes, std::string::npos);
    for (size_t i = 0; i < bytes.size(); ++i) {
        act(bytes.substr(0, i), i);
        for (int bit = 0; bit < 8; ++bit) {
            std::string changed = bytes;
            changed[i] = static_cast<char>(changed[i] ^ 1 << bit);
            act(changed, i);
        }
    }
}

class Changes : public InProcess {
protected:
    static inline bool hosts = false;

    static void SetUpTestSuite() {
        hosts = Host::Prepare();
        if (!hosts) {
            return;
        }
        static const Host host;
        static const Host::Scope on(host);
        gpioip = htonl(INADDR_LOOPBACK);
        ASSERT_TRUE(rudpsrv.Open(2060, nullptr, nullptr, nullptr));
        ASSERT_TRUE(rudpcli.Open(nullptr, nullptr));
    }

    void SetUp() override {
        if (!hosts) {
            GTEST_SKIP() << Host::NEEDED;
        }
        ASSERT_EQ(group.Open(false) | group.Bind(2055, "127.0.0.1"), 0);
        ASSERT_EQ(peer.Open(false) | peer.Bind(0, "127.0.0.1"), 0);
        InProcess::SetUp();
        Reset();
    }

    static ChannelConfig Initial(uint32_t index) { return {KIND_BUS, index + 1, 0, 0, 0}; }

    // Channel n has the address n on the bus and is high. Whatever an earlier line has left in the
    // connection's buffer is gone.
    void Reset() {
        for (uint32_t i = 0; i < CHANNEL_COUNT; ++i) {
            gpiocli.close(i);
            channels[i] = {Initial(i), {}, {}};
            copy_state(channels[i].gpi_state, "HHHHH");
            copy_state(channels[i].gpo_state, "HHHHH");
        }
        iface = htonl(INADDR_LOOPBACK);
        connect_control();
        ASSERT_TRUE(tqrd.Accept());
    }

    // What has changed since the reset, in the words of the lines that may change it.
    static std::string Touched() {
        std::string touched = iface != htonl(INADDR_LOOPBACK) ? "SET" : "";
        for (uint32_t i = 0; i < CHANNEL_COUNT; ++i) {
            const Channel& c = channels[i];
            const std::string n = std::to_string(i + 1);
            touched += c == Initial(i) ? "" : "CFG GPO " + n;
            touched += text_of(c.gpi_state) == "HHHHH" ? "" : "GPI " + n;
            touched += text_of(c.gpo_state) == "HHHHH" ? "" : "GPO " + n;
        }
        return touched;
    }

    // All that has come to the socket.
    static std::string Received(CInetSocket& sock) {
        char buf[512];
        CInetAddress sender;
        std::string received;
        while (sock.WaitForRead(0) > 0) {
            received.append(buf, static_cast<size_t>(sock.Read(&sender, buf, sizeof buf)));
        }
        return received;
    }

    CMainLoop loop;
    CInetSocket group;
    CInetSocket peer;
};

// The answer that a packet must get, "" for none.
std::string answer_to(const std::string& packet) {
    if (packet.size() < 16) {
        return "";
    }
    const bool is_refused = static_cast<unsigned char>(packet[0]) < 3;
    if (!is_refused && (packet[3] != 7 || packet[1] == 0)) {
        return "";
    }
    return std::string{'\0', is_refused ? 'N' : 'A', '\0', '\7'} + packet.substr(4, 4);
}

// What becomes of a packet that differs at a byte, of those that its effects tell.
char effect_of(const std::string& packet, size_t at, const std::string& effects) {
    if (at == std::string::npos) {
        return '=';
    }
    const bool is_cut = packet.size() == at;
    const bool is_refused = !is_cut && static_cast<unsigned char>(packet[0]) < 3;
    return is_cut || is_refused || at >= effects.size() ? '-' : effects[at];
}

TEST_F(Changes, OfPackets) {
    channels[0].ach = 0x102;
    CInetAddress to;
    to.SetAddress("127.0.0.1", 2060);
    const std::regex lines("(GPO [123] [xHL]{5}( DURATION:[0-9]+)?\n)*");
    // What a change of each byte brings about: the same (=), nothing (-) or maybe other lines (*).
    const std::string header = "==--============";
    const struct {
        const char* capture;
        const char* told;
        bool is_read;
        const char* payload;
    } table[] = {
        {"write", "GPO 1 Lxxxx DURATION:250\n", false, "------****-*"},
        {"read", "", true, "------====-========-============-=====-="},
        {"message", "GPO 1 xLxxx\nGPO 1 xxxxH DURATION:50\n", false, "------****-*****-*"},
        {"indication", "", false, ""},
        {"acknowledgement", "", false, ""},
    };
    for (const auto& row : table) {
        for_each_change(read_capture(row.capture), [&](const std::string& bytes, size_t at) {
            SCOPED_TRACE(row.capture + (" " + testing::PrintToString(bytes)));
            Clock::Advance(11, 0);  // an earlier one with the same number is forgotten
            peer.Write(&to, bytes.data(), static_cast<int>(bytes.size()));
            ASSERT_TRUE(loop.Turn());
            EXPECT_EQ(Received(peer), answer_to(bytes));
            const char effect = effect_of(bytes, at, header + row.payload);
            const std::string told = Told();
            EXPECT_TRUE(effect == '*' ? std::regex_match(told, lines)
                                      : told == (effect == '=' ? row.told : ""))
                << told;
            EXPECT_EQ(Received(group).empty(), effect != '=' || !row.is_read);
        });
    }
}

// What a line may change: nothing but what its first words and its number say.
std::string meaning_of(const std::string& line) {
    if (line.find('\0') != std::string::npos) {
        return "";  // never comes to its end
    }
    for (const std::string words : {"CFG GPO ", "GPI ", "GPO "}) {
        if (line.rfind(words, 0) == 0) {
            return words + std::to_string(strtol(line.c_str() + words.size(), nullptr, 0));
        }
    }
    return line.rfind("SET ", 0) == 0 ? "SET" : "";
}

TEST_F(Changes, OfControlLines) {
    const LoopbackServer followed(93);
    for (const char* original :
         {"CFG GPO 5 SRCA=3:7", "CFG GPO 4 SRCA=127.0.0.1/2", "CFG GPO 3 SRCA=\"tqs://9\" B=1",
          "GPI 25 LLHLL", "GPO 5 HLHLx", "SET NIC_IPADDR=10.0.0.1"}) {
        for_each_change(original, [&](const std::string& line, size_t at) {
            SCOPED_TRACE(testing::PrintToString(line));
            Reset();
            tqrd.Send(line + "\n");
            ASSERT_TRUE(loop.Turn());
            const std::string touched = Touched();
            EXPECT_TRUE(touched == meaning_of(line) || (touched.empty() && at != std::string::npos))
                << touched;
            std::string told = Told();
            if (touched.rfind("CFG ", 0) == 0) {
                const std::string n = touched.substr(8);
                const std::string released = "DEL GPI " + n + "\nGPO " + n + " HHHHH\n";
                EXPECT_EQ(told.substr(0, released.size()), released);
                told.erase(0, released.size());
                EXPECT_TRUE(told.empty() || told == "ADD GPI " + n + "\n") << told;
            } else {
                EXPECT_EQ(told, "");
            }
            EXPECT_TRUE(Received(group).empty() || line.rfind("GPI ", 0) == 0);
        });
    }
}

}  // namespace
