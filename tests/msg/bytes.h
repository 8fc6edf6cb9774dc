// What the tests of messages share.
#pragma once

#include <cctype>
#include <string>
#include <vector>

#include "msg/Msg2.h"
#include "msg/cmsgdump.h"

// Bytes written as hexadecimal digits; blanks don't count.
inline std::string hex(const std::string& digits) {
    std::string result, pair;
    for (const char c : digits) {
        pair += c == ' ' ? "" : std::string(1, c);
        if (pair.size() == 2) {
            result += static_cast<char>(std::stoul(pair, nullptr, 16));
            pair.clear();
        }
    }
    return result;
}

// Decodes from a block of exactly the data's size, so that a sanitizer sees every read past it.
inline unsigned short decode(CMsg2& msg, const std::string& data) {
    const std::vector<char> block(data.begin(), data.end());
    return msg.SetData(block.data(), block.size());
}

inline std::string encode(const CMsg2& msg) {
    std::vector<char> block(msg.GetTrueDataSize());
    return std::string(block.data(), msg.GetData(block.data()));
}

inline std::string dump(const CMsg2& msg, unsigned char type = ' ', int flags = MSG_LABEL_TAG) {
    char text[MSG_TEXT_SIZE];
    return Msg2String(&msg, type, text, flags);
}
