// Plays the lines and packets of docs/vectors.json to the daemon.

#include "tests/support/vectors.h"

#include "tests/e2e/PeersSite.h"

namespace {

using Json = nlohmann::json;

std::string Joined(const Json& lines) {
    std::string text;
    for (const std::string line : lines) {
        text += line + "\n";
    }
    return text;
}

// Each step ends with a line, or a packet of another sender, that the daemon answers: what it did
// before has happened then.
class Vectors : public PeersSite {
protected:
    void Start() {
        StartPeers();
        StartDaemon();
        ASSERT_TRUE(m_tqrd->Accept());
        ExpectLines("SET\nCFG GPO\n");
        m_tqrd->Send("CFG GPO 30 SRCA=0x30\nCFG GPO 32 SRCA=10.77.0.2/200\n");
        ExpectLines("GPO 30 HHHHH\nADD GPI 30\nGPO 32 HHHHH\n");
        ASSERT_TRUE(m_remote->Accept());
        EXPECT_EQ(m_remote->Receive(12), "ADD GPI 200\n");
    }

    void ExpectLines(const std::string& lines) { EXPECT_EQ(m_tqrd->Receive(lines.size()), lines); }

    void PlayLine(const Json& v) {
        const std::string line = v["line"];
        if (v["from"] == "remote") {
            m_remote->Send(line + "\nGPI 200 L\n");
            ExpectLines(Joined(v["sends"]) + "GPO 32 L\n");
        } else {
            m_is_odd = !m_is_odd;
            m_tqrd->Send(line + "\nCFG GPO 31 SRCA=" + (m_is_odd ? "x.y" : "none") + "\n");
            ExpectLines(Joined(v["sends"]) + "GPO 31 HHHHH\n");
        }
        const std::string to_remote = Joined(v.value("sends_to_remote", Json::array()));
        EXPECT_EQ(m_remote->Receive(to_remote.size()), to_remote);
        ExpectReports(v.value("reports", Json::array()));
    }

    void PlayPacket(const Json& v) {
        m_bus->Send(Hex(v["hex"]), v["to"] == "group" ? "239.192.255.4" : DEVICE_ADDRESS);
        m_bus->SendFrom(3000, m_bus->Packet('\0', Hex("57524E49 0001 00003004 07 40")),
                        DEVICE_ADDRESS);
        ExpectLines(Joined(v["lines"]) + "GPO 30 xxxxL\n");
        std::vector<std::string> answers;
        if (!v["answer"].is_null()) {
            answers = {Hex(v["answer"])};
        }
        EXPECT_EQ(m_bus->Answers(), answers);
        ExpectReports(v["replies"]);
    }

private:
    // Payloads, each of which is sent twice.
    void ExpectReports(const Json& payloads) {
        std::vector<std::string> expected;
        for (const std::string payload : payloads) {
            expected.insert(expected.end(), 2, Hex(payload));
        }
        std::vector<std::string> seen;
        for (const std::string& packet : m_bus->Reports()) {
            seen.push_back(packet.substr(16));
        }
        EXPECT_EQ(seen, expected);
    }

    bool m_is_odd = false;
};

TEST_F(Vectors, AreWhatTheDaemonDoes) {
    Start();
    const Json vectors = ReadVectors();
    for (const auto& v : vectors["lines"]) {
        SCOPED_TRACE(v["line"]);
        PlayLine(v);
    }
    for (const auto& v : vectors["packets"]) {
        SCOPED_TRACE(v["name"]);
        PlayPacket(v);
        if (HasFailure()) {
            return;
        }
    }
}

}  // namespace
