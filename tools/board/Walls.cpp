#include "tools/board/Walls.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <stdexcept>

#include "tools/base/ErrorText.h"
#include "tools/base/OpenText.h"
#include "tools/base/ReplaceFile.h"
#include "tools/bus/PinName.h"

namespace {

const size_t MAX_NAME = 40;
const int MAX_SIZE = 40;  // lamps in a row
const size_t MAX_FILE = 4 << 20;

const char* const LETTERS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
const char* const COLORS[] = {"red", "amber", "green"};

bool IsName(const std::string& name) {
    return !name.empty() && name.size() <= MAX_NAME &&
           name.find_first_not_of(LETTERS) == std::string::npos;
}

bool IsColor(const std::string& text) {
    return std::find(std::begin(COLORS), std::end(COLORS), text) != std::end(COLORS) ||
           (text.size() == 7 && text[0] == '#' &&
            text.find_first_not_of("0123456789abcdefABCDEF", 1) == std::string::npos);
}

// Empty if it is absent.
std::string TextOf(const Json& json, const char* key) {
    if (!json.contains(key)) {
        return "";
    }
    if (!json[key].is_string() ||
        json[key].get_ref<const std::string&>().size() > Walls::MAX_TEXT) {
        throw std::invalid_argument(std::string(key) + " is no text, or has more than " +
                                    std::to_string(Walls::MAX_TEXT) + " bytes");
    }
    return json[key].get<std::string>();
}

int64_t NumberOf(const Json& json, const char* key) {
    if (!json.contains(key)) {
        return 0;
    }
    if (!json[key].is_number_integer()) {
        throw std::invalid_argument(std::string(key) + " is no number");
    }
    return json[key].get<int64_t>();
}

void Require(bool holds, const std::string& reason) {
    if (!holds) {
        throw std::invalid_argument(reason);
    }
}

// With the fields that are known, and none that are empty.
Json LampOf(const Json& sent, const Names& names) {
    Require(sent.is_object(), "a lamp is no object");
    Json lamp;
    const std::string pin = TextOf(sent, "pin");
    const uint32_t tag = names.ParsePin(pin);
    lamp["pin"] = names.Find(pin) != nullptr ? pin : PinText(tag);
    for (const char* const key : {"label", "color", "level", "on", "off"}) {
        const std::string text = TextOf(sent, key);
        const bool counts = key == std::string("on") || key == std::string("off");
        if (!text.empty() || (counts && sent.contains(key))) {
            lamp[key] = text;
        }
    }
    Require(!lamp.contains("color") || IsColor(lamp["color"]),
            "color is neither red, amber, green nor like #ff8800");
    Require(!lamp.contains("level") || lamp["level"] == "L" || lamp["level"] == "H",
            "level is neither L nor H");
    return lamp;
}

Json WallOf(const std::string& name, const Json& sent, const Names& names) {
    Require(sent.is_object() && sent.contains("lamps") && sent["lamps"].is_array() &&
                !sent["lamps"].empty() && sent["lamps"].size() <= Walls::MAX_LAMPS,
            "a wall needs 1 to " + std::to_string(Walls::MAX_LAMPS) + " lamps");
    const int64_t size = NumberOf(sent, "size");
    Require(size >= 0 && size <= MAX_SIZE, "size is more than " + std::to_string(MAX_SIZE));
    Json wall = {{"name", name}, {"title", TextOf(sent, "title")}, {"size", size}};
    wall["lamps"] = Json::array();
    for (const Json& lamp : sent["lamps"]) {
        wall["lamps"].push_back(LampOf(lamp, names));
    }
    return wall;
}

// What else a file contains is believed.
bool IsWall(const Json& wall) {
    return wall.is_object() && wall.contains("lamps") && wall["lamps"].is_array() &&
           wall.contains("version") && wall["version"].is_number_integer();
}

}  // namespace

Walls::Walls(std::string file) : m_file(std::move(file)) {
    if (!m_file.empty()) {
        Load();
    }
}

void Walls::Load() {
    struct stat status = {};
    if (stat(m_file.c_str(), &status) != 0 && errno == ENOENT) {
        return;
    }
    std::ifstream in = OpenText(m_file);
    if (!in) {
        m_problem = m_file + ": " + ErrorText(errno);
        return;
    }
    std::string text(std::min<size_t>(static_cast<size_t>(status.st_size), MAX_FILE), '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    const Json all = Json::parse(text, nullptr, false);
    if (!all.is_object() || !std::all_of(all.begin(), all.end(), IsWall)) {
        m_problem = m_file + " is no file of walls; it is left alone";
        return;
    }
    for (const auto& [name, wall] : all.items()) {
        m_walls[name] = wall;
    }
}

Json Walls::List() const {
    Json list = Json::array();
    for (const auto& [name, wall] : m_walls) {
        Json one = wall;
        one["lamps"] = wall["lamps"].size();
        list.push_back(std::move(one));
    }
    return list;
}

const Json* Walls::Find(const std::string& name) const {
    const auto found = m_walls.find(name);
    return found == m_walls.end() ? nullptr : &found->second;
}

Walls::Verdict Walls::Save(const std::string& name, const Json& sent, const Names& names,
                           const std::string& who, int64_t now) {
    if (!IsName(name)) {
        return {400, "the name of a wall has 1 to " + std::to_string(MAX_NAME) +
                         " letters (a to z), digits, _ and -"};
    }
    const Json* const old = Find(name);
    Json wall;
    int64_t version = 0;
    try {
        wall = WallOf(name, sent, names);
        version = NumberOf(sent, "version");
    } catch (const std::invalid_argument& error) {
        return {400, error.what()};
    }
    if (version != (old != nullptr ? NumberOf(*old, "version") : 0)) {
        return {409, old == nullptr ? "this wall was removed meanwhile"
                     : version == 0 ? "there is a wall of this name already"
                                    : "somebody else has changed this wall meanwhile"};
    }
    if (old == nullptr && m_walls.size() >= MAX_WALLS) {
        return {409, "there are " + std::to_string(MAX_WALLS) + " walls already"};
    }
    wall["version"] = version + 1;
    wall["by"] = who;
    wall["at"] = now;
    std::map<std::string, Json> walls = m_walls;
    walls[name] = std::move(wall);
    return Keep(std::move(walls));
}

Walls::Verdict Walls::Remove(const std::string& name) {
    std::map<std::string, Json> walls = m_walls;
    if (walls.erase(name) == 0) {
        return {404, "there is no wall of this name"};
    }
    return Keep(std::move(walls));
}

Walls::Verdict Walls::Keep(std::map<std::string, Json> walls) {
    if (!m_problem.empty()) {
        return {503, m_problem};
    }
    const std::string failure =
        m_file.empty() ? "" : ReplaceFile(m_file, Dump(walls) + "\n", Lasts::Always, 0644);
    if (!failure.empty()) {
        return {503, failure};
    }
    m_walls = std::move(walls);
    return {};
}
