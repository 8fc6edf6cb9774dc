#include "tools/server/DeviceState.h"

#include <gtest/gtest.h>

namespace {

using Clock = DeviceState::Clock;

enum Actor { OPERATOR, CLIENT, WAIT };

// What the actor does (WAIT: milliseconds to wait) and the effect, as Render() writes it.
struct Step {
    Actor actor;
    std::string action;
    std::string effect;
};

std::string Render(const LineEffect& effect, const DeviceState& device) {
    std::string text = effect.error.empty() ? "" : "refused;";
    for (const std::string& line : effect.answers) {
        text += "answer " + line + ";";
    }
    for (const std::string& line : effect.broadcast) {
        text += "all " + line + ";";
    }
    text += effect.changed_output ? "all " + device.OutputLine(effect.changed_output) + ";" : "";
    text += effect.changed_input ? "input " + std::to_string(effect.changed_input) + ";" : "";
    text += effect.subscribe ? "+" + std::to_string(effect.subscribe) + ";" : "";
    text += effect.unsubscribe ? "-" + std::to_string(effect.unsubscribe) + ";" : "";
    return text;
}

void Play(const std::vector<Step>& steps) {
    DeviceState device;
    Clock::time_point now;
    for (const Step& step : steps) {
        LineEffect effect;
        if (step.actor == WAIT) {
            now += std::chrono::milliseconds(std::stoi(step.action));
            for (const int number : device.Expire(now)) {
                effect.broadcast.push_back(device.OutputLine(number));
            }
        } else {
            effect = step.actor == CLIENT ? device.Request(step.action, now)
                                          : device.Apply(step.action, now);
        }
        EXPECT_EQ(Render(effect, device), step.effect) << step.action;
    }
}

TEST(DeviceState, ReportsInputsAndOutputs) {
    Play({{CLIENT, "ADD GPI 3", "answer GPI 3 HHHHH;+3;"},
          {OPERATOR, "GPI 3 LxxxL", "input 3;"},
          {OPERATOR, "GPI 0x3 Lx", ""},
          {OPERATOR, "GPI 3 hl", "input 3;"},
          {CLIENT, "ADD  GPI  3", "answer GPI 3 hlHHL;+3;"},
          {CLIENT, "DEL GPI 256", "-256;"},
          {CLIENT, "GPO 32 xLxxx", "all GPO 32 HLHHH;"},
          {CLIENT, "GPO 32 HLHHH DURATION:0", ""},
          {OPERATOR, "GPO 32 lx", "all GPO 32 lLHHH;"}});
}

TEST(DeviceState, EndsDurations) {
    Play({{CLIENT, "GPO 1 Lxxxx DURATION:100", "all GPO 1 LHHHH;"},
          {CLIENT, "GPO 1 LLxxx DURATION:200", "all GPO 1 LLHHH;"},  // takes pin 1 over
          {CLIENT, "GPO 1 xxLxx DURATION:200", "all GPO 1 LLLHH;"},
          {CLIENT, "GPO 1 xxxLx DURATION:99999999999", "all GPO 1 LLLLH;"},
          {WAIT, "199", ""},
          {CLIENT, "GPO 1 xLxxx", ""},  // pin 2 now has no time limit
          {WAIT, "1", "all GPO 1 HLHLH;"},
          {WAIT, "1000", ""},
          {WAIT, "2147483647", "all GPO 1 HLHHH;"}});
}

TEST(DeviceState, KeepsSettingsAndConfiguration) {
    Play({{OPERATOR, "CFG GPO 20 SRCA=1", "all CFG GPO 20 SRCA=1;"},
          {OPERATOR, "CFG GPO 3 SRCA=\"2:3\"", "all CFG GPO 3 SRCA=\"2:3\";"},
          {OPERATOR, "CFG GPO 3 SRCA=\"2:3\"", ""},
          {OPERATOR, "CFG GPO 20 NAME=x", "all CFG GPO 20 NAME=x;"},
          {CLIENT, "CFG GPO", "answer CFG GPO 3 SRCA=\"2:3\";answer CFG GPO 20 NAME=x;"},
          {OPERATOR, "SET A=1", "all SET A=1;"},
          {OPERATOR, "SET AB:1", "all SET AB:1;"},
          {OPERATOR, "SET A:2", "all SET A:2;"},
          {OPERATOR, "SET A:2", ""},
          {CLIENT, "SET", "answer SET AB:1;answer SET A:2;"}});
}

void ExpectRefused(const std::vector<Actor>& actors, const std::vector<std::string>& lines) {
    for (const Actor actor : actors) {
        for (const std::string& line : lines) {
            Play({{actor, line, "refused;"}});
        }
    }
}

TEST(DeviceState, RefusesOtherLines) {
    ExpectRefused(
        {CLIENT, OPERATOR},
        {"GPO 1", "GPO 33 L", "GPO 0 L", "GPO 1x L", "GPO 1 LHLHLH", "GPO 1 LZ",
         "GPO 1 L DURATION:-1", "GPO 1 L DURATION:", "GPO 1 L 5", "gpo 1 L", "GPO 1 L DURATION:5 x",
         "GPO 99999999999999999999 L", "CFG GPO 1", std::string("GPO 1 L\0", 8)});
    ExpectRefused({CLIENT}, {"SET A=1", "CFG", "CFG GPI", "ADD GPI", "ADD GPI 257", "ADD GPO 1",
                             "DEL GPI 1 2", "GPI 1 L", "HELLO %s%n", " "});
    ExpectRefused({OPERATOR}, {"SET", "SET A=" + std::string(5000, 'x'), "CFG GPO 33 SRCA=1",
                               "CFG GPI 1 X=1", "GPI 257 L", "GPI 1", "GPI 1 L x", "ADD GPI 1"});
}

}  // namespace
