// The configuration file of orvex-gpio, one setting per line:
//
//     listen  0.0.0.0:93  from 10.77.0.0/24  inputs
//     chip    relay  label "gpio-mcp23017"
//     input   1.1  line GPIO17  pull-up  debounce 5ms
//     output  2.1  relay 3  initial H  on-exit keep
//     CFG GPO 2 SRCA=1:2
//
// orvex-gpio.conf(5) describes them all.
#pragma once

#include <string>
#include <vector>

#include "tools/base/ConfigFile.h"
#include "tools/gpio/GpioChip.h"
#include "tools/server/Address.h"
#include "tools/server/DeviceState.h"

struct ListenConfig {
    Endpoint endpoint;
    ListenAccess access;
};

// A chip, and the name that the file gives to it.
struct ChipConfig {
    enum class Key { Label, Path, Name };

    std::string name;
    Key key = Key::Label;
    std::string value;

    bool Matches(const ChipInfo& chip) const;
};

enum class OnExit { Keep, High, Low, Input };

// A pin and the line that it is connected to.
struct PinConfig {
    bool is_output = false;
    int number = 0;         // of the GPI or GPO
    size_t pin = 0;         // 0 to 4
    std::string chip;       // its name in the file; empty: the line is found by its own name
    std::string line_name;  // if so
    unsigned int offset = 0;
    LineSettings settings;
    char initial = 'H';
    OnExit on_exit = OnExit::Keep;
    int line = 0;  // of the file

    std::string PinText() const;   // "input 1.1", as in the file
    std::string LineText() const;  // "line GPIO17", "relay 3"
    bool IsSamePin(const PinConfig& other) const {
        return is_output == other.is_output && number == other.number && pin == other.pin;
    }
};

struct GpioConfig {
    std::string file;
    std::vector<ListenConfig> listen;
    std::vector<ChipConfig> chips;
    std::vector<PinConfig> pins;
    std::vector<std::string> lines;  // CFG GPO and SET

    // Reads and checks a file, not the chips. Throws ConfigError with all errors.
    static GpioConfig Read(const std::string& file);
};
