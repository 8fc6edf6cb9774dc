#include "tools/mqtt/Config.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <set>
#include <stdexcept>
#include <utility>

#include "tools/base/OpenText.h"
#include "tools/mqtt/ConfigValues.h"

namespace {

using Words = std::vector<std::string>;

std::string ReadSecret(const std::string& file) {
    std::ifstream in = OpenText(file);
    std::string secret;
    std::getline(in, secret);
    if (!secret.empty() && secret.back() == '\r') {
        secret.pop_back();
    }
    if (secret.empty()) {
        Refuse("can't read a password from " + file);
    }
    return secret;
}

class Reader {
public:
    explicit Reader(const std::string& file) : m_file(file) {}

    MqttConfig Run();

private:
    void TakeLine(const Words& words);
    bool TakeBus(const Words& words);
    bool TakeBroker(const Words& words);
    void TakeLink(const Words& words);
    void ParseBroker(const std::string& text);
    std::string ReadableFile(const std::string& text) const;
    std::string Path(const std::string& text) const;
    void Finish();
    [[noreturn]] void Fail(const std::string& reason) const {  // of the whole file
        throw ConfigError(m_file + ": " + reason);
    }
    [[noreturn]] void Fail(int line, const std::string& reason) const {
        throw ConfigError(m_file + ":" + std::to_string(line) + ": " + reason);
    }

    const std::string m_file;
    MqttConfig m_config;
    std::string m_names;
    int m_line = 0;
    std::set<std::string> m_seen;
    std::vector<std::pair<int, Words>> m_late;  // settings that need the site and the names
};

MqttConfig Reader::Run() {
    m_config.file = m_file;
    for (const ConfigLine& line : ReadConfigLines(m_file)) {
        m_line = line.number;
        try {
            TakeLine(line.words);
        } catch (const std::invalid_argument& error) {
            Fail(m_line, error.what());
        }
    }
    Finish();
    return m_config;
}

void Reader::TakeLine(const Words& words) {
    const std::string& key = words[0];
    if (key == "link" || key == "pins") {
        m_late.emplace_back(m_line, words);
        return;
    }
    if (words.size() != 2) {
        Refuse(key == "tls" || words.size() < 2 ? key + " needs one value"
                                                : key + " has more than one value");
    }
    if (!m_seen.insert(key).second) {
        Refuse(key + " is given twice");
    }
    if (!TakeBroker(words) && !TakeBus(words)) {
        Refuse("unknown setting: " + key);
    }
}

bool Reader::TakeBroker(const Words& words) {
    const std::string& key = words[0];
    const std::string& value = words[1];
    if (key == "site") {
        m_config.site = ParseLevelName(value);
    } else if (key == "prefix") {
        m_config.prefix = ParseLevelName(value);
    } else if (key == "discovery") {
        m_config.discovery = ParseLevelName(value);
    } else if (key == "board") {
        if (value.rfind("http://", 0) != 0 && value.rfind("https://", 0) != 0) {
            Refuse("not a URL of http or https: " + value);
        }
        m_config.board = value;
    } else if (key == "broker" && value == "none") {
        m_config.is_local = true;
    } else if (key == "broker") {
        ParseBroker(value);
    } else if (key == "tls" || key == "standby") {
        if (value != "yes" && value != "no") {
            Refuse("not yes or no: " + value);
        }
        (key == "tls" ? m_config.tls : m_config.standby) = value == "yes";
    } else if (key == "ca") {
        m_config.ca = ReadableFile(value);
    } else if (key == "certificate") {
        m_config.certificate = ReadableFile(value);
    } else if (key == "key") {
        m_config.key = ReadableFile(value);
    } else if (key == "user") {
        m_config.user = value;
    } else if (key == "password-file") {
        m_config.password = ReadSecret(Path(value));
    } else {
        return false;
    }
    return true;
}

bool Reader::TakeBus(const Words& words) {
    const std::string& key = words[0];
    const std::string& value = words[1];
    if (key == "interface") {
        m_config.bus.iface = value;
    } else if (key == "names") {
        m_names = Path(value);
    } else if (key == "ask") {
        m_config.ask_every = ParseNumber(value, 1, 3600);
    } else if (key == "expire") {
        m_config.expire = ParseNumber(value, 1, 60);
    } else {
        return false;
    }
    return true;
}

// HOST, HOST:PORT, or an IPv6 address, in brackets if a port follows.
void Reader::ParseBroker(const std::string& text) {
    const bool in_brackets = text[0] == '[';
    size_t end = in_brackets ? text.find(']') : text.find(':');
    const bool is_bare = !in_brackets && end != text.npos && text.find(':', end + 1) != text.npos;
    m_config.host = is_bare ? text : text.substr(in_brackets, end - in_brackets);
    end += in_brackets && end != text.npos;
    in6_addr address;
    const bool is_good = is_bare || in_brackets
                             ? inet_pton(AF_INET6, m_config.host.c_str(), &address) == 1
                             : text.find('/') == text.npos && !m_config.host.empty();
    if (!is_good || (in_brackets && end < text.size() && text[end] != ':')) {
        Refuse("not HOST or HOST:PORT: " + text);
    }
    if (!is_bare && end < text.size()) {
        m_config.port = ParseWhole(text.substr(end + 1), 1, UINT16_MAX);
    }
}

std::string Reader::ReadableFile(const std::string& text) const {
    std::string path = Path(text);
    if (OpenText(path).peek() == EOF) {
        Refuse("can't read " + path);
    }
    return path;
}

// A secret may be among the credentials of systemd; other files are beside this one.
std::string Reader::Path(const std::string& text) const {
    if (text[0] == '/') {
        return text;
    }
    const char* const credentials = std::getenv("CREDENTIALS_DIRECTORY");
    if (credentials != nullptr) {
        std::string path = std::string(credentials) + "/" + text;
        if (OpenText(path)) {
            return path;
        }
    }
    const size_t slash = m_file.rfind('/');
    return slash == m_file.npos ? text : m_file.substr(0, slash + 1) + text;
}

void Reader::TakeLink(const Words& words) {
    LinkConfig link = ParseLink(words, m_config.site, m_config.names);
    link.line = m_line;
    if (const auto reason = RefusalOf(link, m_config.links)) {
        Refuse(*reason);
    }
    const auto read = [this](const SitePin& pin) {
        if (pin.site == m_config.site) {
            m_config.pins.push_back(ParsePinRef(pin.pin));
        } else if (m_config.is_local) {
            Refuse("without a broker, nobody knows " + pin.Text());
        }
    };
    link.from.ForEachPin([&](const Expression& source) { read(source.pin); });
    read(link.to);
    m_config.links.push_back(std::move(link));
}

void Reader::Finish() {
    if (m_config.site.empty() || (m_config.host.empty() && !m_config.is_local)) {
        Fail(m_config.site.empty() ? "no site is given" : "no broker is given");
    }
    if (m_config.certificate.empty() != m_config.key.empty()) {
        Fail("a certificate needs a key, and a key a certificate");
    }
    if (!m_config.password.empty() && m_config.user.empty()) {
        Fail("a password needs a user");
    }
    if (!m_config.tls && !(m_config.ca + m_config.certificate).empty()) {
        Fail("ca, certificate and key need tls yes");
    }
    if (m_config.is_local &&
        (m_config.tls || m_config.standby || !(m_config.discovery + m_config.user).empty())) {
        Fail("standby, discovery, tls and user need a broker");
    }
    if (m_config.port == 0) {
        m_config.port = m_config.tls ? 8883 : 1883;
    }
    try {
        m_config.names = Names::Load(m_names);
    } catch (const NamesError& error) {
        throw ConfigError(error.what());
    }
    for (const auto& [line, words] : m_late) {
        m_line = line;
        try {
            if (words[0] == "link") {
                TakeLink(words);
                continue;
            }
            for (size_t i = 1; i < words.size(); ++i) {
                m_config.pins.push_back(m_config.names.Parse(words[i]));
            }
        } catch (const std::invalid_argument& error) {
            Fail(line, error.what());
        }
    }
    if (const char* const directory = std::getenv("STATE_DIRECTORY")) {
        m_config.loss_file = std::string(directory) + "/lost";
    }
    for (const Names::Entry& entry : m_config.names.All()) {
        m_config.pins.push_back(entry.pins);
    }
}

}  // namespace

MqttConfig MqttConfig::Read(const std::string& file) {
    return Reader(file).Run();
}
