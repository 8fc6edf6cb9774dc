// Shared by the tests of messages.
#pragma once

#include <string>
#include <vector>

#include "msg/Msg2.h"
#include "msg/cmsgdump.h"
#include "tests/support/Hex.h"

// Decodes from a block of exactly the data's size, so that a sanitizer detects any read past it.
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
