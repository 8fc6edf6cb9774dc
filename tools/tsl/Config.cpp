#include "tools/tsl/Config.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include "tools/tsl/Codec.h"

namespace {

const double SHORTEST_LOSS = 1;  // seconds
const double LONGEST_LOSS = 3600;
const double SHORTEST_PERIOD = 0.1;
const double LONGEST_PERIOD = 3600;
const size_t LONGEST_LABEL = 200;  // bytes

[[noreturn]] void Refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

uint16_t ParseNumber(const std::string& text, unsigned int most) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != text.npos ||
        std::stoul(text) > most) {
        Refuse("not a number from 0 to " + std::to_string(most) + ": " + text);
    }
    return static_cast<uint16_t>(std::stoul(text));
}

double ParseSeconds(const std::string& text, double least, double most) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    const bool is_plain = text.find_first_not_of("0123456789.") == text.npos && *end == '\0';
    if (!is_plain || !(seconds >= least && seconds <= most)) {
        std::ostringstream range;
        range << least << " to " << most;
        Refuse("not " + range.str() + " seconds: " + text);
    }
    return seconds;
}

// "udp 10.0.0.30:8900 v5", common to listen and send.
void TakePlace(ConfigWords& words, TslPlace& place) {
    const std::string& transport = words.Next("udp or tcp");
    if (transport != "udp" && transport != "tcp") {
        Refuse("not udp or tcp: " + transport);
    }
    place.transport = transport == "udp" ? Transport::Udp : Transport::Tcp;
    place.endpoint = TakeEndpoint(words);
    const std::string& version = words.Next("v3.1 or v5");
    if (version != "v3.1" && version != "v5") {
        Refuse("not v3.1 or v5: " + version);
    }
    place.version = version == "v5" ? TslVersion::V5 : TslVersion::V31;
}

void TakeListen(ConfigWords& words, TslListen& listen) {
    TakePlace(words, listen);
    while (words.TakeIf("from")) {
        listen.from.push_back(TakeNetwork(words));
    }
    words.ExpectEnd();
}

// Of "tally1" to "tally4" the bit; 0: something else.
uint8_t TallyBit(const std::string& word) {
    if (word.size() == 6 && word.compare(0, 5, "tally") == 0 && word[5] >= '1' && word[5] <= '4') {
        return static_cast<uint8_t>(Display::TALLY_1 << (word[5] - '1'));
    }
    return 0;
}

uint8_t ColourBits(const std::string& word) {
    return word == "red"     ? Display::RED
           : word == "green" ? Display::GREEN
           : word == "amber" ? Display::AMBER
                             : uint8_t(0);
}

// Where the bits of a lamp begin; none: no lamp is named.
std::optional<int> TakeLamp(ConfigWords& words) {
    if (words.TakeIf("right")) {
        return Display::RIGHT;
    }
    if (words.TakeIf("text")) {
        return Display::TEXT;
    }
    if (words.TakeIf("left")) {
        return Display::LEFT;
    }
    return std::nullopt;
}

// "tally1-or-tally2", "right red", "red-or-green".
std::vector<uint8_t> TakeCondition(ConfigWords& words, TslVersion version) {
    const std::optional<int> lamp =
        version == TslVersion::V5 ? TakeLamp(words) : std::optional<int>();
    const char* const choice =
        version == TslVersion::V31 ? "tally1 to tally4" : "red, green or amber";
    std::string rest = words.Next(choice);
    std::vector<uint8_t> lit_by;
    for (bool more = true; more;) {
        const size_t end = rest.find("-or-");
        const std::string word = rest.substr(0, end);
        more = end != rest.npos;
        rest = more ? rest.substr(end + 4) : "";
        const uint8_t bits = version == TslVersion::V31 ? TallyBit(word) : ColourBits(word);
        if (bits == 0) {
            Refuse("not " + std::string(choice) + ": " + word);
        }
        for (const int at : {Display::RIGHT, Display::TEXT, Display::LEFT}) {
            if (version == TslVersion::V31 ? at == Display::RIGHT : !lamp || lamp == at) {
                lit_by.push_back(static_cast<uint8_t>(bits << at));
            }
        }
    }
    return lit_by;
}

class Reader {
public:
    explicit Reader(const std::string& file) : m_errors(file) { m_config.file = file; }

    TslConfig Run();

private:
    void TakeLine(const ConfigLine& line);
    void TakeRule(ConfigWords& words, int line);
    void TakeSend(ConfigWords& words);
    void TakePin(ConfigWords& words, int line);
    void CheckPins();
    void CheckRules();
    bool Has(TslVersion version) const;

    TslConfig m_config;
    std::string m_names;
    ConfigErrors m_errors;
};

TslConfig Reader::Run() {
    const std::vector<ConfigLine> lines = ReadConfigLines(m_config.file);
    // Names first: other lines use them.
    for (const ConfigLine& line : lines) {
        if (line.words[0] == "names" && line.words.size() == 2) {
            m_names = line.words[1];
        }
    }
    m_config.names = Names::Load(m_names);
    for (const ConfigLine& line : lines) {
        m_errors.Try(line.number, [&] { TakeLine(line); });
    }
    CheckPins();
    CheckRules();
    m_errors.ThrowIfAny();
    return m_config;
}

void Reader::TakeLine(const ConfigLine& line) {
    ConfigWords words(line.words);
    const std::string& key = line.words[0];
    if (key == "listen") {
        TslListen listen;
        TakeListen(words, listen);
        for (const TslListen& other : m_config.listen) {
            if (other.IsSameSocket(listen)) {
                Refuse(listen.Text() + " is given twice");
            }
        }
        m_config.listen.push_back(listen);
    } else if (key == "display") {
        TakeRule(words, line.number);
    } else if (key == "send") {
        TakeSend(words);
    } else if (key == "pin") {
        TakePin(words, line.number);
    } else if (key == "interface") {
        m_config.interface = words.Next("a name or an address");
        words.ExpectEnd();
    } else if (key == "names") {
        words.Next("a file");
        words.ExpectEnd();
    } else {
        Refuse("unknown setting: " + key);
    }
}

void Reader::TakeRule(ConfigWords& words, int line) {
    TslRule rule;
    rule.line = line;
    const bool has_screen = words.TakeIf("screen");
    if (has_screen) {
        rule.place.screen = ParseNumber(words.Next("a number"), Display::ALL - 1);
    }
    if (words.TakeIf("index")) {
        rule.place.version = TslVersion::V5;
        rule.place.index = ParseNumber(words.Next("a number"), Display::ALL - 1);
    } else if (has_screen) {
        Refuse("a screen needs an index: screen 1 index 4");
    } else {
        rule.place.index = ParseNumber(words.Next("an address, or index NUMBER"), TSL31_HIGHEST);
    }
    rule.lit_by = TakeCondition(words, rule.place.version);
    if (!words.TakeIf("->")) {
        Refuse("no -> before the output");
    }
    rule.tag = m_config.names.ParsePin(words.Next("an output"));
    if (IsInput(rule.tag)) {
        Refuse("an input can't be set: " + PinText(rule.tag));
    }
    if (words.TakeIf("on-loss")) {
        rule.on_loss = ParseLevel(words.Next("L or H, and seconds"));
        rule.loss_after = ParseSeconds(words.Next("seconds"), SHORTEST_LOSS, LONGEST_LOSS);
    }
    words.ExpectEnd();
    for (const TslRule& other : m_config.rules) {
        if (other.tag == rule.tag) {
            Refuse(PinText(rule.tag) + " is set by line " + std::to_string(other.line) +
                   " already; one display may light it by several tallies: red-or-green");
        }
    }
    m_config.rules.push_back(rule);
}

void Reader::TakeSend(ConfigWords& words) {
    TslSend send;
    TakePlace(words, send);
    while (!words.IsAtEnd()) {
        if (words.TakeIf("screen")) {
            if (send.version == TslVersion::V31) {
                Refuse("v3.1 has no screens");
            }
            send.screen = ParseNumber(words.Next("a number"), Display::ALL - 1);
        } else if (words.TakeIf("every")) {
            send.every = ParseSeconds(words.Next("seconds"), SHORTEST_PERIOD, LONGEST_PERIOD);
        } else {
            Refuse("unknown option: " + words.Next(""));
        }
    }
    m_config.send.push_back(send);
}

void Reader::TakePin(ConfigWords& words, int line) {
    TslPin pin;
    pin.line = line;
    pin.tag = m_config.names.ParsePin(words.Next("a pin"));
    if (!words.TakeIf("->") || !words.TakeIf("index")) {
        Refuse("no -> index NUMBER behind the pin");
    }
    pin.index = ParseNumber(words.Next("a number"), Display::ALL - 1);
    while (!words.IsAtEnd()) {
        if (words.TakeIf("label")) {
            pin.label = words.NextText("a text");
            if (pin.label.size() > LONGEST_LABEL) {
                Refuse("the label is longer than 200 bytes");
            }
        } else if (const std::optional<int> lamp = TakeLamp(words)) {
            const std::string& word = words.Next("red, green or amber");
            if (ColourBits(word) == 0) {
                Refuse("not red, green or amber: " + word);
            }
            pin.tallies_5 = static_cast<uint8_t>(pin.tallies_5 | ColourBits(word) << *lamp);
        } else {
            const std::string& word = words.Next("");
            if (TallyBit(word) == 0) {
                Refuse("not tally1 to tally4, right, text or left: " + word);
            }
            pin.tallies_31 = static_cast<uint8_t>(pin.tallies_31 | TallyBit(word));
        }
    }
    m_config.pins.push_back(pin);
}

bool Reader::Has(TslVersion version) const {
    return std::any_of(m_config.send.begin(), m_config.send.end(),
                       [version](const TslSend& send) { return send.version == version; });
}

// What can be seen only when all lines are known.
void Reader::CheckPins() {
    for (const TslPin& pin : m_config.pins) {
        if (pin.tallies_31 == 0 && pin.tallies_5 == 0) {
            m_errors.Add(pin.line, "no tally, such as tally1 or right red");
        } else if (m_config.send.empty()) {
            m_errors.Add(pin.line, "nothing is sent: no line begins with send");
        } else if ((pin.tallies_31 == 0 || !Has(TslVersion::V31)) &&
                   (pin.tallies_5 == 0 || !Has(TslVersion::V5))) {
            m_errors.Add(pin.line,
                         "its tallies are not for the version that is sent: tally1 to "
                         "tally4 are for v3.1, right, text and left for v5");
        }
        if (pin.tallies_31 != 0 && pin.index > TSL31_HIGHEST) {
            m_errors.Add(pin.line, "the addresses of v3.1 end at 126");
        }
        for (const TslPin& other : m_config.pins) {
            if (other.line < pin.line && other.index == pin.index && !pin.label.empty() &&
                !other.label.empty() && pin.label != other.label) {
                m_errors.Add(pin.line, "index " + std::to_string(pin.index) +
                                           " has another label in line " +
                                           std::to_string(other.line));
            }
        }
    }
}

void Reader::CheckRules() {
    for (const TslRule& rule : m_config.rules) {
        const auto hears = [&rule](const TslListen& listen) {
            return listen.version == rule.place.version;
        };
        if (std::none_of(m_config.listen.begin(), m_config.listen.end(), hears)) {
            m_errors.Add(rule.line, "nothing listens for " +
                                        std::string(VersionName(rule.place.version)) +
                                        ": no line such as listen udp 0.0.0.0:8900 " +
                                        VersionName(rule.place.version));
        }
    }
}

}  // namespace

std::string TslPlace::Text() const {
    return std::string(transport == Transport::Udp ? "udp " : "tcp ") + endpoint.Text() + " " +
           VersionName(version);
}

bool TslListen::operator==(const TslListen& other) const {
    return TslPlace::operator==(other) && from == other.from;
}

bool TslRule::IsLit(uint8_t tallies) const {
    return std::any_of(lit_by.begin(), lit_by.end(),
                       [tallies](uint8_t bits) { return (tallies & bits) == bits; });
}

bool TslRule::IsSame(const TslRule& other) const {
    return place.IsSamePlace(other.place) && lit_by == other.lit_by && tag == other.tag &&
           on_loss == other.on_loss && loss_after == other.loss_after;
}

bool TslSend::operator==(const TslSend& other) const {
    return TslPlace::operator==(other) && screen == other.screen && every == other.every;
}

TslConfig TslConfig::Read(const std::string& file) {
    return Reader(file).Run();
}

TslListen ParseTslListen(const std::string& text) {
    std::vector<std::string> all = {"listen"};
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        all.push_back(word);
    }
    ConfigWords words(all);
    TslListen listen;
    TakeListen(words, listen);
    return listen;
}
