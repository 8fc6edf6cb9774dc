// Plays the worked sessions of docs/protocol.md, simulating all three kinds of peers byte by byte.

#include <deque>
#include <fstream>
#include <sstream>

#include "tests/e2e/PeersSite.h"
#include "tests/support/vectors.h"

namespace {

const char* const GROUP = "239.192.255.4";

struct Step {
    std::string from, arrow, to, text;
};

// The lines of the fenced block "```session NAME".
std::vector<Step> ReadSession(const std::string& name) {
    std::ifstream doc(ORVEX_PROTOCOL_DOC);
    std::string line;
    while (std::getline(doc, line) && line != "```session " + name) {
    }
    std::vector<Step> steps;
    while (std::getline(doc, line) && line != "```") {
        std::istringstream words(line);
        Step step;
        if (line[0] != '#' && words >> step.from >> step.arrow >> step.to >> std::ws) {
            std::getline(words, step.text);
            steps.push_back(step);
        }
    }
    return steps;
}

class Sessions : public PeersSite, public testing::WithParamInterface<const char*> {
protected:
    void Play(const Step& step) {
        const bool by_orvex = step.from == "orvex";
        const std::string& other = by_orvex ? step.to : step.from;
        if (other == "tqrd" || other == "remote") {
            LoopbackServer& server = other == "tqrd" ? *m_tqrd : *m_remote;
            by_orvex ? Expect(server, step.text) : Tell(server, step.text);
        } else if (by_orvex) {
            ExpectPacket(step.to == "group", Packet(step.text));
        } else {
            m_bus->Send(Packet(step.text), step.to == "group" ? GROUP : DEVICE_ADDRESS);
        }
    }

    void ExpectNoMore() {
        TakePackets();
        EXPECT_TRUE(m_tqrd->IsQuiet() && m_reports.empty() && m_answers.empty());
    }

private:
    static std::string Packet(const std::string& text) {
        return ReadPacket(text.substr(1, text.size() - 2));
    }

    static void Expect(LoopbackServer& server, const std::string& text) {
        if (text == "(connects)") {
            EXPECT_TRUE(server.Accept());
        } else if (text == "(closes)") {
            EXPECT_TRUE(server.SeesEnd());
        } else {
            EXPECT_EQ(server.Receive(text.size() + 1), text + "\n");
        }
    }

    // Returns once the daemon has read it, so that the next datagram on the bus comes later.
    void Tell(LoopbackServer& server, const std::string& text) {
        if (text == "(closes)") {
            server.Drop();
            EXPECT_TRUE(AwaitErr("Connection to TQRD lost\n"));
            return;
        }
        const size_t seen = daemon->Out().size();
        server.Send(text + "\n");
        EXPECT_TRUE(
            Await([&] { return daemon->Out().find(text.substr(4), seen) < std::string::npos; }));
    }

    void TakePackets() {
        for (const auto& report : m_bus->Reports()) {
            m_reports.push_back(report);
        }
        for (const auto& answer : m_bus->Answers()) {
            m_answers.push_back(answer);
        }
    }

    void ExpectPacket(bool to_group, std::string expected) {
        std::deque<std::string>& packets = to_group ? m_reports : m_answers;
        ASSERT_TRUE(Await([&] {
            TakePackets();
            return !packets.empty();
        }));
        if (to_group) {
            expected.replace(4, 4, packets[0], 4, 4);  // the transaction ID is the daemon's own
        }
        EXPECT_EQ(packets[0], expected);
        packets.pop_front();
    }

    std::deque<std::string> m_reports;
    std::deque<std::string> m_answers;
};

TEST_P(Sessions, GoAsTheDocumentSays) {
    StartPeers();
    StartDaemon();
    const std::vector<Step> steps = ReadSession(GetParam());
    ASSERT_GT(steps.size(), 10U);
    for (const Step& step : steps) {
        SCOPED_TRACE(step.from + " -> " + step.to + " " + step.text);
        Play(step);
        if (HasFailure()) {
            return;
        }
    }
    ExpectNoMore();
}

INSTANTIATE_TEST_SUITE_P(All, Sessions,
                         testing::Values("bus peer", "control server", "remote server"));

}  // namespace
