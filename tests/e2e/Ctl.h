// orvexctl on the studio's host, the daemon on the device.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "net/InetSocket.h"
#include "tests/e2e/Site.h"

using Json = nlohmann::json;
using Words = std::vector<std::string>;

inline long CountOf(const std::string& text, const std::string& part) {
    long count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class Ctl : public Site {
protected:
    // Channel 1 has the address 1:2.
    void StartAll() {
        ASSERT_EQ(tqrd.server.Apply("CFG GPO 1 SRCA=1:2"), "");
        ASSERT_EQ(tqrd.server.Apply("GPI 1 HLHHL"), "");
        StartControl();
        StartDaemon();
        ASSERT_TRUE(AwaitOut("parse_GPI 1 HLHHL\n"));
    }

    std::unique_ptr<Process> Start(const Host& host, Words arguments) {
        arguments.insert(arguments.begin(), ORVEXCTL_PROGRAM);
        if (ORVEX_EMULATOR[0] != '\0') {
            arguments.insert(arguments.begin(), ORVEX_EMULATOR);
        }
        const Host::Scope on(host);
        return std::make_unique<Process>(arguments, m_environment);
    }

    // A watch or record that is already listening.
    std::unique_ptr<Process> StartListener(const Host& host, Words arguments) {
        arguments.emplace_back("-v");
        auto listener = Start(host, arguments);
        EXPECT_TRUE(AwaitText(*listener, "listening to"));
        return listener;
    }

    // Waits for the end; returns the exit status. Reading all addresses takes a busy machine a
    // while.
    int Finish(Process& process) {
        const auto has_ended = [&] {
            process.Pump();
            return !process.IsRunning();
        };
        EXPECT_TRUE(Await(has_ended, 50000)) << process.Out() << process.Err();
        return process.Status();
    }

    // Waits until the program has printed the text that many times.
    bool AwaitText(Process& process, const std::string& text, long times = 1) {
        return Await([&] {
            process.Pump();
            return CountOf(process.Out() + process.Err(), text) >= times;
        });
    }

    // A socket on the device, for packets that no client of ours would send.
    void OpenRaw(CInetSocket& raw, int port) {
        const Host::Scope on(device);
        EXPECT_EQ(raw.Open(false) | raw.Bind(port, nullptr), 0);
    }

    Words m_environment;  // of the started programs

    void ExpectRun(const Words& arguments, int status, const std::string& out,
                   const std::string& err) {
        const auto ctl = Start(studio, arguments);
        EXPECT_EQ(Finish(*ctl), status);
        EXPECT_EQ(ctl->Out(), out);
        EXPECT_EQ(ctl->Err(), err);
    }
};

inline std::vector<Json> Lines(const std::string& text) {
    std::vector<Json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(Json::parse(line, nullptr, false));
        EXPECT_FALSE(lines.back().is_discarded()) << line;
    }
    return lines;
}
