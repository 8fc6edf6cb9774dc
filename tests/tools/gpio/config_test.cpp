// The configuration file, and which lines its pins are connected to.
#include <gtest/gtest.h>
#include <linux/gpio.h>
#include <unistd.h>

#include <fstream>

#include "tools/gpio/ChipLines.h"
#include "tools/gpio/Listing.h"

namespace {

GpioConfig Read(const std::string& text) {
    char name[] = "/tmp/orvex-gpio-test-XXXXXX";
    const Descriptor file(mkstemp(name));
    std::ofstream(name) << text;
    try {
        GpioConfig config = GpioConfig::Read(name);
        unlink(name);
        return config;
    } catch (const ConfigError& error) {
        unlink(name);
        std::string errors = error.what();
        for (size_t at = 0; (at = errors.find(name)) != errors.npos;) {
            errors.erase(at, sizeof name);
        }
        throw ConfigError(errors);
    }
}

std::string ErrorsOf(const std::string& text) {
    try {
        Read(text);
        return {};
    } catch (const ConfigError& error) {
        return error.what();
    }
}

const uint64_t INPUT =
    GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;
const uint64_t OUTPUT = GPIO_V2_LINE_FLAG_OUTPUT;
const uint64_t LOW = GPIO_V2_LINE_FLAG_ACTIVE_LOW;

TEST(GpioConfig, ReadsPinsAndTheirLines) {
    const GpioConfig config = Read(
        "chip relay label \"two words\"  # comment\n"
        "input 256.5 line GPIO17 pull-up debounce 1.5ms\r\n"
        "input 1.1 relay 3 active-high no-pull\n"
        "output 32.1 relay 4 open-drain initial L on-exit input\n"
        "\toutput 1.2 relay 5 active-high push-pull on-exit H\n"
        "CFG GPO 1  SRCA=\"1:2\" # the lamp\n"
        "SET A=1\n");
    const std::vector<uint64_t> flags = {INPUT | LOW | GPIO_V2_LINE_FLAG_BIAS_PULL_UP,
                                         INPUT | GPIO_V2_LINE_FLAG_BIAS_DISABLED,
                                         OUTPUT | LOW | GPIO_V2_LINE_FLAG_OPEN_DRAIN, OUTPUT};
    ASSERT_EQ(config.pins.size(), flags.size());
    for (size_t i = 0; i < flags.size(); ++i) {
        EXPECT_EQ(config.pins[i].settings.flags, flags[i]) << config.pins[i].PinText();
    }
    EXPECT_EQ(config.pins[0].PinText() + config.pins[0].LineText(), "input 256.5line GPIO17");
    EXPECT_EQ(config.pins[0].settings.debounce_us, 1500U);
    EXPECT_EQ(config.pins[2].PinText() + config.pins[2].LineText(), "output 32.1relay 4");
    EXPECT_EQ(config.pins[2].initial, 'L');
    EXPECT_EQ(config.pins[2].on_exit, OnExit::Input);
    EXPECT_EQ(config.pins[3].on_exit, OnExit::High);
    EXPECT_EQ(config.chips[0].value, "two words");
    EXPECT_EQ(config.lines, (std::vector<std::string>{"CFG GPO 1  SRCA=\"1:2\"", "SET A=1"}));
    ASSERT_EQ(config.listen.size(), 1U);
    EXPECT_EQ(config.listen[0].endpoint, (Endpoint{"127.0.0.1", 93}));
}

TEST(GpioConfig, ReadsWhoMayConnect) {
    const GpioConfig config =
        Read("listen 127.0.0.1:93\nlisten 0.0.0.0:94 from 10.77.0.0/24 inputs from 10.78.0.1\n");
    ASSERT_EQ(config.listen.size(), 2U);
    EXPECT_TRUE(config.listen[0].access == ListenAccess());
    const ListenAccess& access = config.listen[1].access;
    EXPECT_TRUE(access.inputs_only);
    ASSERT_EQ(access.from.size(), 2U);
    EXPECT_TRUE(access.from[0].Contains(0x0A4D00FF) && access.from[1].Contains(0x0A4E0001));
    EXPECT_FALSE(access.from[0].Contains(0x0A4D0100) || access.from[1].Contains(0x0A4E0002));
    EXPECT_TRUE(ParseNetwork("0.0.0.0/0")->Contains(0xFFFFFFFF));
}

TEST(GpioConfig, TellsAllErrorsAtOnce) {
    const struct {
        const char* line;
        const char* error;
    } cases[] = {
        {"listen 127.0.0.1", "not IP:PORT: 127.0.0.1"},
        {"listen 127.0.0.1:0", "not IP:PORT: 127.0.0.1:0"},
        {"listen 0.0.0.0:93 from 10.77.0.1/24",
         "not a network, such as 10.77.0.0/24: 10.77.0.1/24"},
        {"listen 0.0.0.0:93 inputs all", "unknown option: all"},
        {"chip", "chip needs a name and label, path or name"},
        {"chip a serial 5", "not label, path or name: serial"},
        {"chip line path /dev/gpiochip0", "a chip can't be called line"},
        {"chip a label \"b", "no closing quote: \"b"},
        {"chip a label b c", "more after the chip's label"},
        {"chip relay name gpiochip1", "two chips are called relay"},
        {"input 1.1", "1.1 needs line NAME, or a chip and an offset"},
        {"input 1.6 relay 1", "not a pin, from 1.1 to 256.5: 1.6"},
        {"output 33.1 relay 1", "not a pin, from 1.1 to 32.5: 33.1"},
        {"input 1 relay 1", "not a pin, from 1.1 to 256.5: 1"},
        {"input 1.1 relay x", "not the offset of a line: x"},
        {"input 1.1 other 1", "no chip is called other"},
        {"input 1.2 relay 1 pull-up pull-down",
         "pull-down contradicts an option before it, or repeats it"},
        {"input 1.2 relay 1 debounce 5", "not a time from 1us to 60s, such as 5ms: 5"},
        {"input 1.2 relay 1 debounce 61s", "not a time from 1us to 60s, such as 5ms: 61s"},
        {"input 1.2 relay 1 initial H", "initial is for outputs"},
        {"output 1.2 relay 1 debounce 5ms", "debounce is for inputs"},
        {"output 1.2 relay 1 initial h", "not H or L: h"},
        {"output 1.2 relay 1 on-exit", "on-exit needs keep, H, L or input"},
        {"output 1.2 relay 1 on-exit no", "not keep, H, L or input: no"},
        {"output 1.2 relay 0", "relay 0 is output 1.1 already"},
        {"output 1.1 relay 1", "output 1.1 is given in line 2 already"},
        {"output 1.2 relay 1 bright", "unknown option: bright"},
        {"CFG GPO 33 SRCA=1", "line not understood: CFG GPO 33 SRCA=1 (GPO number is not 1 to 32)"},
        {"SET", "line not understood: SET (no fields)"},
        {"GPO 1 L", "unknown setting: GPO"},
    };
    std::string text = "chip relay label b\noutput 1.1 relay 0\n";
    std::string errors;
    int line = 2;
    for (const auto& entry : cases) {
        text += entry.line + std::string("\n");
        errors += (errors.empty() ? "" : "\n") + std::to_string(++line) + ": " + entry.error;
    }
    EXPECT_EQ(ErrorsOf(text), errors);
    EXPECT_THROW(GpioConfig::Read("/nonexistent"), ConfigError);
    EXPECT_THROW(GpioConfig::Read("/tmp"), ConfigError);
}

// Two chips; the second has a line named like one of the first.
std::vector<ChipInfo> Chips() {
    const LineInfo used = {"B", "heartbeat", GPIO_V2_LINE_FLAG_USED};
    const LineInfo own = {"C", "orvex-gpio", GPIO_V2_LINE_FLAG_USED};
    return {{"/dev/gpiochip0", "gpiochip0", "soc", {{"A", "", 0}, used, own}, ""},
            {"/dev/gpiochip1", "gpiochip1", "soc", {{"A", "", 0}, {"D", "", 0}}, ""},
            {"/dev/gpiochip2", "", "", {}, "can't open: Permission denied"}};
}

TEST(GpioWiring, FindsLines) {
    const std::string files[] = {
        "chip x name gpiochip1\ninput 1.1 line C\ninput 1.2 x 0\n",
        "input 1.1 line B\ninput 1.2 line Z\n",
        "chip s label soc\nchip x path /dev/gpiochip1\nchip y path /dev/gpiochip2\n"
        "input 1.1 line A\ninput 1.2 s 1\ninput 1.3 x 2\ninput 1.4 x 1\ninput 1.5 line D\n"
        "output 1.1 y 1\n",
    };
    const std::string problems[] = {
        "",
        "1: line B is used by heartbeat\n"
        "2: line Z: no chip has a line of this name; /dev/gpiochip2: can't open: Permission "
        "denied\n",
        "4: line A is there twice: gpiochip0 (soc) 0 and gpiochip1 (soc) 0\n"
        "5: s 1 is there twice: gpiochip0 (soc) 1 and gpiochip1 (soc) 1\n"
        "6: x 2: gpiochip1 (soc) has lines 0 to 1\n"
        "8: line D is input 1.4 already\n"
        "9: y 1: /dev/gpiochip2: can't open: Permission denied\n",
    };
    for (size_t i = 0; i < 3; ++i) {
        GpioConfig config = Read(files[i]);
        config.file.clear();
        std::string found;
        for (const std::string& problem : FindProblems(config, Chips())) {
            found += problem.substr(1) + "\n";
        }
        EXPECT_EQ(found, problems[i]);
        // What a chip can still mend does not stop the program.
        EXPECT_EQ(i == 2, [&] {
            try {
                RefuseContradictions(config, Chips());
                return false;
            } catch (const ConfigError&) {
                return true;
            }
        }());
    }
}

// The level of a line with numbered edges, after it was read as H at 100.
TEST(GpioLines, LosesNoPulse) {
    HeldLine line;
    line.read_ns = 100;
    const uint64_t ms = 1000000;
    EXPECT_EQ(line.Take({50, 0, 1, false}), "H");         // led to the level that was read
    EXPECT_EQ(line.Take({100 * ms, 0, 2, false}), "LH");  // too short for the kernel to see it
    EXPECT_EQ(line.Take({101 * ms, 0, 3, false}), "H");   // its end
    EXPECT_EQ(line.Take({200 * ms, 0, 4, false}), "LH");
    EXPECT_EQ(line.Take({300 * ms, 0, 5, true}), "L");
    EXPECT_EQ(line.Take({400 * ms, 0, 9, true}), "L");
    EXPECT_EQ(line.lost, 3U);
}

}  // namespace
