// Messages from their JSON form. They are encoded and then decoded, because the setters of CMsg2
// support neither unknown types nor two items with one tag.

#include <cmath>
#include <stdexcept>

#include "tools/bus/Escape.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/MessageJson.h"
#include "tools/bus/PinName.h"

namespace {

const size_t MAX_COUNT = 0xFFFF;

[[noreturn]] void Refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

void Put(std::string& out, uint64_t number, int width) {
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>(number >> shift & 0xFF));
    }
}

void PutCount(std::string& out, size_t count) {
    if (count > MAX_COUNT) {
        Refuse("a message of more than 65535 bytes");
    }
    Put(out, count, 2);
}

const Json& Field(const Json& json, const char* name) {
    const auto field = json.is_object() ? json.find(name) : json.end();
    if (field == json.end()) {
        Refuse(std::string("no \"") + name + "\"");
    }
    return *field;
}

// A number of that many bytes.
uint64_t Number(const Json& json, const char* what, int width) {
    const uint64_t max = width == 8 ? UINT64_MAX : (1ULL << width * 8) - 1;
    if (!json.is_number_unsigned() || json.get<uint64_t>() > max) {
        Refuse(std::string(what) + " is not a number from 0 to " + std::to_string(max));
    }
    return json.get<uint64_t>();
}

const Json& Array(const Json& json, const char* what) {
    if (!json.is_array()) {
        Refuse(std::string(what) + " is not an array");
    }
    return json;
}

std::string Text(const Json& json, const char* what) {
    if (!json.is_string()) {
        Refuse(std::string(what) + " is not a string");
    }
    return json.get<std::string>();
}

uint32_t IdOf(const Json& json) {
    if (!json.is_string()) {
        return static_cast<uint32_t>(Number(json, "\"id\"", 4));
    }
    const std::string text = json.get<std::string>();
    if (text.size() == 4) {
        return static_cast<uint32_t>(CMsg2::GetTag(text.c_str()));
    }
    if (text.size() != 10 || text.compare(0, 2, "0x") != 0 ||
        text.find_first_not_of("0123456789ABCDEFabcdef", 2) != text.npos) {
        Refuse("\"id\" is neither four characters nor 0x and eight digits");
    }
    return static_cast<uint32_t>(std::stoul(text, nullptr, 16));
}

uint32_t TagOf(const Json& item, const Names& names) {
    if (item.is_object() && !item.contains("tag") && item.contains("pin")) {
        return names.ParsePin(Text(item["pin"], "\"pin\""));
    }
    return static_cast<uint32_t>(Number(Field(item, "tag"), "\"tag\"", 4));
}

uint8_t TypeOf(const Json& json) {
    if (json.is_number()) {
        const uint64_t code = Number(json, "\"type\"", 1);
        if (code > 0 && code < TYPE_NAME_COUNT) {
            Refuse("\"type\" " + std::to_string(code) + " has a name");
        }
        return static_cast<uint8_t>(code);
    }
    const std::string name = Text(json, "\"type\"");
    for (uint8_t code = 1; code < TYPE_NAME_COUNT; ++code) {
        if (name == TYPE_NAMES[code]) {
            return code;
        }
    }
    Refuse("unknown \"type\": " + name);
}

void PutArray(std::string& out, const Json& json, int width) {
    PutCount(out, Array(json, "\"value\"").size());
    for (const Json& element : json) {
        Put(out, Number(element, "an element", width), width);
    }
}

void PutString(std::string& out, const Json& json) {
    if (json.is_array()) {
        return PutArray(out, json, 1);
    }
    std::string bytes;
    if (!json.is_null()) {
        bytes = UnescapeBytes(Text(json, "\"value\"")) + '\0';
    }
    PutCount(out, bytes.size());
    out += bytes;
}

void PutMessage(std::string& out, const Json& json, const Names& names, int depth);

void PutNested(std::string& out, const Json& json, const Names& names, int depth) {
    if (json.is_array()) {
        return PutArray(out, json, 1);
    }
    std::string nested;
    PutMessage(nested, json, names, depth + 1);
    PutCount(out, nested.size());
    out += nested;
}

void PutValue(std::string& out, uint8_t type, const Json& json, const Names& names, int depth) {
    switch (type) {
        case CMsg2::ITEM_BYTE:
            return Put(out, Number(json, "\"value\"", 1), 1);
        case CMsg2::ITEM_WORD:
            return Put(out, Number(json, "\"value\"", 2), 2);
        case CMsg2::ITEM_DWORD:
            return Put(out, Number(json, "\"value\"", 4), 4);
        case CMsg2::ITEM_QWORD:
            return Put(out, Number(json, "\"value\"", 8), 8);
        case CMsg2::ITEM_STRING:
            return PutString(out, json);
        case CMsg2::ITEM_BYTE_ARRAY:
            return PutArray(out, json, 1);
        case CMsg2::ITEM_WORD_ARRAY:
            return PutArray(out, json, 2);
        case CMsg2::ITEM_DWORD_ARRAY:
            return PutArray(out, json, 4);
        case CMsg2::ITEM_MSG:
            return PutNested(out, json, names, depth);
        default:
            return Put(out, Number(json, "\"value\"", 2), 2);
    }
}

void PutMessage(std::string& out, const Json& json, const Names& names, int depth) {
    if (depth > MAX_DEPTH) {
        Refuse("messages nested deeper than " + std::to_string(MAX_DEPTH) + " levels");
    }
    const Json& items = Array(Field(json, "items"), "\"items\"");
    Put(out, IdOf(Field(json, "id")), 4);
    PutCount(out, items.size());
    for (const Json& item : items) {
        const uint8_t type = TypeOf(Field(item, "type"));
        Put(out, TagOf(item, names), 4);
        Put(out, type, 1);
        PutValue(out, type, Field(item, "value"), names, depth);
    }
}

void ReadEnvelope(const Json& json, Traffic& traffic) {
    traffic.time = 0;
    traffic.port = 0;
    traffic.message.SetRel(false);
    if (json.contains("time")) {
        if (!json["time"].is_number() || !std::isfinite(json["time"].get<double>())) {
            Refuse("\"time\" is not a number");
        }
        traffic.time = json["time"].get<double>();
    }
    if (json.contains("port")) {
        traffic.port = static_cast<uint16_t>(Number(json["port"], "\"port\"", 2));
    }
    if (json.contains("reliable")) {
        if (!json["reliable"].is_boolean()) {
            Refuse("\"reliable\" is neither true nor false");
        }
        traffic.message.SetRel(json["reliable"].get<bool>());
    }
}

// An object about one pin, without items. False if there is nothing to send.
bool ReadPin(const Json& json, Traffic& traffic, const Names& names) {
    const uint32_t tag = TagOf(json, names);
    const std::string kind = json.contains("kind") ? Text(json["kind"], "\"kind\"") : "";
    const bool told = kind == "report" || kind == "reply";
    const Json& level_field = Field(json, "level");
    const bool denied = told && json.contains("denied");  // the level is not what was answered
    if (level_field.is_null() || kind == "forgotten" || denied || (!told && IsInput(tag))) {
        return false;
    }
    const Level level = ParseLevel(Text(level_field, "\"level\""));
    const uint64_t duration =
        json.contains("duration") ? Number(json["duration"], "\"duration\"", 4) : 0;
    traffic.message.Empty();
    traffic.message.SetId(told ? ID_REPORT : ID_WRITE);
    traffic.message.SetByte(tag,
                            told ? (level == Level::Low ? 1 : 0)
                                 : WriteValue(level, static_cast<unsigned long>(duration)).Byte());
    if (told) {
        traffic.port = REPORT_PORT;
    }
    return true;
}

}  // namespace

bool FromJson(const std::string& line, Traffic& traffic, const Names& names) {
    const Json json = Json::parse(line, nullptr, false);
    if (!json.is_object()) {
        Refuse("not a JSON object");
    }
    ReadEnvelope(json, traffic);
    if (json.contains("event") || json.contains("source") || json.contains("check")) {
        return false;  // nothing about pins
    }
    if (json.contains("pin") && !json.contains("items")) {
        return ReadPin(json, traffic, names);
    }
    std::string bytes;
    PutMessage(bytes, json, names, 0);
    if (bytes.size() > MAX_COUNT ||
        traffic.message.SetData(bytes.data(), bytes.size()) != bytes.size()) {
        Refuse("a message of more than 65535 bytes");
    }
    return true;
}
