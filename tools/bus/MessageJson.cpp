#include "tools/bus/MessageJson.h"

#include <cstdio>
#include <vector>

#include "tools/bus/Escape.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinName.h"
#include "tools/bus/PinWrite.h"

namespace {

template <typename T>
Json ArrayOf(const T* elements, unsigned int count) {
    Json array = Json::array();
    for (unsigned int i = 0; i < count; ++i) {
        array.push_back(elements[i]);
    }
    return array;
}

Json StringValue(const char* bytes, unsigned int count) {
    if (count == 0) {
        return nullptr;
    }
    if (bytes[count - 1] != '\0') {
        return ArrayOf(reinterpret_cast<const unsigned char*>(bytes), count);
    }
    return EscapeBytes(std::string(bytes, count - 1));
}

Json ItemsOf(const CMsg2& message, Kind kind, const Names& names, int depth);

Json MessageValue(const CMsg2& message, int depth) {
    if (depth < MAX_DEPTH) {
        return {{"id", IdText(static_cast<uint32_t>(message.GetId()))},
                {"items", ItemsOf(message, Kind::Other, Names(), depth + 1)}};
    }
    std::vector<char> bytes(message.GetTrueDataSize());
    message.GetData(bytes.data());
    return ArrayOf(reinterpret_cast<const unsigned char*>(bytes.data()),
                   static_cast<unsigned int>(bytes.size()));
}

Json ValueOf(const CMsg2::Node& item, int depth) {
    const CMsg2::Node::Value& value = item.m_Value;
    switch (item.m_nType) {
        case CMsg2::ITEM_BYTE:
        case CMsg2::ITEM_WORD:
        case CMsg2::ITEM_DWORD:
            return value.m_nDword;
        case CMsg2::ITEM_QWORD:
            return value.m_nQword;
        case CMsg2::ITEM_STRING:
            return StringValue(value.m_pString, item.m_nCount);
        case CMsg2::ITEM_BYTE_ARRAY:
            return ArrayOf(value.m_pBytes, item.m_nCount);
        case CMsg2::ITEM_WORD_ARRAY:
            return ArrayOf(value.m_pWords, item.m_nCount);
        case CMsg2::ITEM_DWORD_ARRAY:
            return ArrayOf(value.m_pDwords, item.m_nCount);
        case CMsg2::ITEM_MSG:
            return MessageValue(*value.m_pMsg, depth);
        default:
            return item.m_nCount;
    }
}

Json TypeOf(const CMsg2::Node& item) {
    if (item.m_nType < TYPE_NAME_COUNT && TYPE_NAMES[item.m_nType] != nullptr) {
        return TYPE_NAMES[item.m_nType];
    }
    return item.m_nType;
}

Json ItemOf(const CMsg2::Node& item, Kind kind, const Names& names, int depth) {
    Json json = {{"tag", item.m_nTag}, {"type", TypeOf(item)}, {"value", ValueOf(item, depth)}};
    if (kind != Kind::Other && IsNamedPin(item.m_nTag)) {
        const PinValue value = PinValueOf(kind, item);
        json["pin"] = PinText(item.m_nTag);
        PutNames(json, item.m_nTag, names);
        if (value.level) {
            json["level"] = LevelLetter(*value.level);
        }
        if (value.duration_ms > 0) {
            json["duration"] = value.duration_ms;
        }
    }
    return json;
}

Json ItemsOf(const CMsg2& message, Kind kind, const Names& names, int depth) {
    Json items = Json::array();
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        items.push_back(ItemOf(*message.GetItem(i), kind, names, depth));
    }
    return items;
}

}  // namespace

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

void PutNames(Json& json, uint32_t tag, const Names& names) {
    const std::string name = names.NameOf(tag);
    const std::string text = names.TextOf(tag);
    if (!name.empty()) {
        json["name"] = name;
    }
    if (!text.empty()) {
        json["text"] = text;
    }
}

std::string ToJson(const Traffic& traffic, const Names& names) {
    const CMessage& message = traffic.message;
    Json json;
    json["time"] = traffic.time;
    json["host"] = traffic.host.empty() ? Json() : Json(traffic.host);
    json["port"] = traffic.port;
    json["reliable"] = message.GetRel();
    json["id"] = IdText(static_cast<uint32_t>(message.GetId()));
    json["items"] = ItemsOf(message, traffic.GetKind(), names, 0);
    return Dump(json);
}

std::string IdText(uint32_t id) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const uint32_t c = id >> shift & 0xFF;
        if (c < 0x20 || c > 0x7E) {
            char number[16];
            snprintf(number, sizeof number, "0x%08X", id);
            return number;
        }
        name.push_back(static_cast<char>(c));
    }
    return name;
}

std::string TypeText(const CMsg2::Node& item) {
    const Json type = TypeOf(item);
    return type.is_string() ? type.get<std::string>() : "type " + Dump(type);
}

std::string ValueText(const CMsg2::Node& item) {
    return Dump(ValueOf(item, 0));
}
