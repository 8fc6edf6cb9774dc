#include "msg/cmsgdump.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "msg/Message.h"
#include "protocol/numbers.h"

namespace {

// A text that grows within a fixed buffer. What does not fit is truncated.
class Text {
public:
    Text(char* buf, size_t size) : m_pEnd(buf), m_nRoom(size) { *buf = '\0'; }

    // Whether the buffer is full.
    bool IsFull() const { return m_nRoom <= 1; }

    // NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments against the format.
    void Add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list args;
        va_start(args, format);
        const int length = vsnprintf(m_pEnd, m_nRoom, format, args);
        va_end(args);
        const size_t wanted = length < 0 ? 0 : static_cast<size_t>(length);
        const size_t added = wanted < m_nRoom ? wanted : m_nRoom - 1;
        m_pEnd += added;
        m_nRoom -= added;
    }

private:
    char* m_pEnd;    // the NUL
    size_t m_nRoom;  // bytes from there on
};

const char* prefix_of(unsigned char type) {
    switch (type) {
        case 0:
            return "DGRM ";
        case 'M':
            return "MSG  ";
        case 'R':
            return "REQ  ";
        case 'T':
            return "RES  ";
        case '?':
            return "     ";
        case ' ':
            return "";
        default:
            return "UNKN ";
    }
}

void add_label(Text& text, uint32_t tag, int flags) {
    if ((flags & MSG_LABEL_TAG) != 0) {
        text.Add("%08lX", static_cast<unsigned long>(tag));
    }
    if ((flags & MSG_LABEL_TAG) != 0 && (flags & MSG_LABEL_NAME) != 0) {
        text.Add("/");
    }
    if ((flags & MSG_LABEL_NAME) != 0) {
        char name[5];
        text.Add("%s", tag == TAG_REFERS_TO    ? "refi"
                       : tag == TAG_REQUEST_ID ? "*id*"
                                               : CMsg2::GetName(tag, name));
    }
}

// An array of words or dwords, each with that many digits.
template <typename T>
void add_numbers(Text& text, const T* numbers, unsigned int count, int digits) {
    for (unsigned int i = 0; i < count && !text.IsFull(); ++i) {
        text.Add("%s%0*lX", i == 0 ? "" : ", ", digits, static_cast<unsigned long>(numbers[i]));
    }
}

void add_msg(Text& text, const CMsg2& msg, unsigned char type, int flags);

void add_value(Text& text, const CMsg2::Node& item, int flags) {
    const CMsg2::Node::Value& value = item.m_Value;
    const unsigned long number = value.m_nDword;
    switch (item.m_nType) {
        case CMsg2::ITEM_DWORD:
            text.Add("=%08lX", number);
            break;
        case CMsg2::ITEM_BYTE:
            text.Add("=%02lX", number);
            break;
        case CMsg2::ITEM_WORD:
            text.Add("=%04lX", number);
            break;
        case CMsg2::ITEM_QWORD:
            text.Add("=%016llX", static_cast<unsigned long long>(value.m_nQword));
            break;
        case CMsg2::ITEM_STRING:
            text.Add("='%s'", value.m_pString == nullptr ? "" : value.m_pString);
            break;
        case CMsg2::ITEM_BYTE_ARRAY:
            text.Add("={");
            if (item.m_nCount > 0) {
                text.Add("%.*s", item.m_nCount, reinterpret_cast<const char*>(value.m_pBytes));
            }
            text.Add("}");
            break;
        case CMsg2::ITEM_WORD_ARRAY:
            text.Add("={");
            add_numbers(text, value.m_pWords, item.m_nCount, 4);
            text.Add("}");
            break;
        case CMsg2::ITEM_DWORD_ARRAY:
            text.Add("={");
            add_numbers(text, value.m_pDwords, item.m_nCount, 8);
            text.Add("}");
            break;
        case CMsg2::ITEM_MSG:
            text.Add("=");
            add_msg(text, *value.m_pMsg, 0, flags);
            break;
        default:
            break;
    }
}

void add_item(Text& text, const CMsg2::Node& item, int flags) {
    if (item.m_nType == CMsg2::ITEM_NONE || item.m_nType > CMsg2::ITEM_QWORD) {
        text.Add("*unknown type=%d*", item.m_nType);
        return;
    }
    add_label(text, item.m_nTag, flags);
    add_value(text, item, flags);
}

void add_msg(Text& text, const CMsg2& msg, unsigned char type, int flags) {
    char name[5];
    text.Add("%s[%s ", prefix_of(type), CMsg2::GetName(msg.GetId(), name));
    for (unsigned int i = 0; i < msg.GetItemCount() && !text.IsFull(); ++i) {
        if (i > 0) {
            text.Add(",");
        }
        add_item(text, *msg.GetItem(i), flags);
    }
    text.Add("]");
}

}  // namespace

char* Msg2String(const CMsg2* msg, unsigned char type, char* buf, int flags) {
    if (msg == nullptr || buf == nullptr) {
        return nullptr;
    }
    Text text(buf, MSG_TEXT_SIZE);
    add_msg(text, *msg, type, flags);
    return buf;
}

char* Message2String(const CMessage* msg, char* buf, int flags) {
    return Msg2String(msg, msg->GetMsgType(), buf, flags);
}
