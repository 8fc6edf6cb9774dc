#include "tools/tqrd/SourceNotes.h"

#include <arpa/inet.h>

#include <cstring>

#include "tools/bus/PinName.h"
#include "tools/tqrd/SourceText.h"
#include "tqr/tqr_util.h"
#include "tqr/trace.h"

namespace {

const char* const SEPARATORS = " ,";        // between fields
const uint32_t MAX_BUS_ADDRESS = 0xFFFFFF;  // a tag has 24 bits for it

// The value without quotes, escapes and scheme.
std::string PlainText(const std::string& value) {
    std::string text(value.size() + 1, '\0');
    tqr_copyval(text.data(), value.c_str(), static_cast<int>(text.size()));
    text.resize(strlen(text.c_str()));
    return text.compare(0, 6, "tqs://") == 0 ? text.substr(6) : text;
}

// The part after the first separator; empty if there is none.
std::string After(const std::string& text, char separator) {
    const size_t at = text.find(separator);
    return at == std::string::npos ? std::string() : text.substr(at + 1);
}

std::string Before(const std::string& text, char separator) {
    return text.substr(0, text.find(separator));
}

bool IsOctal(const std::string& number) {
    return number.size() > 1 && number[0] == '0' && number[1] >= '0' && number[1] <= '9';
}

class Notes {
public:
    // value is the field's, rest what follows it in the line.
    Notes(const std::string& value, const std::string& rest, const ChannelConfig& config)
        : m_value(value), m_rest(rest), m_text(PlainText(value)), m_config(config) {}

    std::vector<std::string> Make() {
        AboutLaterFields();
        AboutLostText();
        switch (m_config.proto) {
            case KIND_BUS:
                AboutAddress();
                break;
            case KIND_REMOTE:
                AboutServer();
                AboutPort();
                AboutInput();
                break;
            default:
                AboutNothing();
                break;
        }
        return std::move(m_notes);
    }

private:
    void Add(const std::string& note) { m_notes.push_back(note); }
    void AboutLaterFields();
    void AboutLostText();
    void AboutAddress();
    void AboutServer();
    void AboutPort();
    void AboutInput();
    void AboutNothing();

    const std::string& m_value;
    const std::string& m_rest;
    const std::string m_text;
    const ChannelConfig& m_config;
    std::vector<std::string> m_notes;
};

// The value alone would be read differently.
void Notes::AboutLaterFields() {
    const ChannelConfig alone = parse_source(m_value.c_str());
    if (!(alone == m_config)) {
        Add("A '.' before the first blank makes a remote server, and a comma is no blank: the "
            "'.' of a later field counts. With a blank after the source it is: " +
            DescribeSource(alone) + ".");
    }
}

// What follows the source and is no field.
void Notes::AboutLostText() {
    const size_t begin = m_rest.find_first_not_of(SEPARATORS);
    if (begin == std::string::npos) {
        return;
    }
    const std::string word = m_rest.substr(begin, m_rest.find_first_of(SEPARATORS, begin) - begin);
    if (word.find_first_of("=:") == std::string::npos) {
        Add(std::string("The source ends at the ") + (m_rest[0] == ',' ? "comma" : "blank") +
            ": \"" + word + "\" is ignored.");
    }
}

void Notes::AboutAddress() {
    const char* behind = nullptr;
    const std::string first = Before(m_text, ':');
    const bool has_two = m_text.find(':') == first.size();
    const std::string second = has_two ? After(m_text, ':') : std::string();
    tqr_strtol(m_text.c_str(), &behind, 0);
    if (has_two && *behind == ':') {
        const long b = tqr_strtol(behind + 1, &behind, 0);
        if (b < 0 || b > 255) {
            Add("The second number has 8 bits: " + second +
                " overflows into the first one, which makes " + AddressText(m_config.ach) + ".");
        }
    }
    if (IsOctal(first) || IsOctal(second)) {
        Add("A number that begins with 0 is octal (010 is 8).");
    }
    if (*behind != '\0') {
        Add("The text after the number is ignored: \"" + std::string(behind) + "\".");
    }
    if (m_config.ach > MAX_BUS_ADDRESS) {
        Add("Addresses on the bus have 24 bits: no message can reach this one.");
    }
}

void Notes::AboutServer() {
    const std::string address = Before(Before(m_text, '/'), ':');
    const std::string read = DottedQuad(m_config.ip).text;
    if (m_config.ip == 0) {
        Add("0.0.0.0 is no server: the daemon does not connect.");
    } else if (address != read) {
        Add("The address \"" + address + "\" is read as " + read +
            ": parts that begin with 0 are octal, and the last of fewer than four fills the rest.");
    }
}

void Notes::AboutPort() {
    const std::string place = Before(m_text, '/');
    const std::string port = After(place, ':');
    if (After(m_text, '/').find(':') != std::string::npos) {
        Add("Only the input may follow the '/', so the port is " + std::to_string(m_config.port) +
            ". Put the port before it: " + place + ":" + After(After(m_text, '/'), ':') + "/" +
            Before(After(m_text, '/'), ':') + ".");
    }
    if (place.find(':') != std::string::npos && port != std::to_string(m_config.port)) {
        Add("The port \"" + port + "\" is read as " + std::to_string(m_config.port) +
            ": ports are decimal and have 16 bits.");
    }
    if (m_config.port == 0) {
        Add("Nothing listens on port 0.");
    }
}

void Notes::AboutInput() {
    const std::string input = Before(After(m_text, '/'), ':');
    if (m_text.find('/') != std::string::npos && input != std::to_string(RemoteInput(m_config))) {
        Add("The input \"" + input + "\" is read as " + std::to_string(RemoteInput(m_config)) +
            ": inputs are decimal, 1 to 256.");
    }
}

void Notes::AboutNothing() {
    if (m_config.ip == INADDR_NONE) {
        Add("A '.' makes a remote server, but \"" + Before(Before(m_text, '/'), ':') +
            "\" is not an address: names are not looked up.");
    } else {
        Add("It neither begins with a digit, like an address on the bus, nor contains a '.', like "
            "the address of a server.");
    }
}

// What counts where the source leaves it out.
std::string Defaults(const std::string& value, const ChannelConfig& config) {
    const std::string text = PlainText(value);
    if (config.proto != KIND_REMOTE || text.find('/') != std::string::npos) {
        return {};
    }
    return "Without an input after a '/' it is input 1.";
}

}  // namespace

std::optional<SourceReading> ReadSource(const std::string& text) {
    const std::string fields = text.compare(0, 4, "CFG ") == 0 ? text.substr(4) : "GPO 1 " + text;
    int number = 0;
    const char* const value = find_source(fields.c_str(), number);
    if (value == nullptr) {
        return std::nullopt;
    }
    SourceReading reading = {FieldText(value), parse_source(value), {}, {}};
    const std::string rest = value + reading.source.size();
    reading.notes = Notes(reading.source, rest, reading.config).Make();
    reading.defaults = Defaults(reading.source, reading.config);
    return reading;
}
