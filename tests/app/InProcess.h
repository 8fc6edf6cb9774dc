// The daemon's parts in the test's own process; TQRD and a remote server are simulated on loopback.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "app/orvex.h"
#include "tests/support/loopback.h"

class InProcess : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        tqr_port = tqrd.Port();
        connect_control();
        ASSERT_TRUE(tqrd.Accept());
    }

    void TearDown() override {
        for (int i = 0; i < CHANNEL_COUNT; ++i) {
            gpiocli.close(static_cast<unsigned long>(i));
            channels[i] = {};
        }
        local.close();
    }

    // What TQRD was sent since the last call. Loopback adds no delay: what was sent has arrived.
    std::string Told() {
        local.send("#");
        std::string told;
        do {
            const std::string next = tqrd.Receive(1);
            told += next.empty() ? "(lost)#" : next;
        } while (told.back() != '#');
        told.pop_back();
        return told;
    }

    // The source for an input of the remote server.
    std::string Remote(int gpi) {
        return "127.0.0.1:" + std::to_string(remote.Port()) + "/" + std::to_string(gpi);
    }

    LoopbackServer tqrd;
    LoopbackServer remote;
};

inline std::string text_of(const char (&state)[PIN_COUNT]) {
    return {state, PIN_COUNT};
}
