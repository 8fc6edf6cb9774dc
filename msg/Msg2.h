// The message that peers on the bus exchange: an identifier and an ordered list of tagged values.
//
// Numbers in an unsigned long are 32 bits wide on every host: what is handed in is cut to 32 bits,
// so (unsigned long)-1 and 0xFFFFFFFF are one tag. That holds for the elements of a dword array as
// well, which are unsigned long of the host in memory and 4 bytes each when encoded.
#pragma once

#include <cstdint>

// Version of the encoding that GetData writes and SetData reads.
extern const unsigned char rudp_msg2_ver;

// Owns its items with their texts, arrays and nested messages. What a getter points to belongs to
// the item: it is valid until that item is set again or removed, or the message is emptied,
// assigned, decoded or destroyed.
//
// Setters return whether the item now holds the new value; a setter that returns false (no room, no
// memory) has changed nothing. They may be given pointers into this very message.
//
// For one thread: even looking an item up moves the cursor.
class CMsg2 {
public:
    // Item type codes, in memory as in the encoding. Other codes arrive only from a peer: such an
    // item keeps its code and count and has no value.
    enum ItemType : unsigned char {
        ITEM_NONE = 0,
        ITEM_DWORD = 1,
        ITEM_STRING = 2,
        ITEM_BYTE_ARRAY = 3,
        ITEM_WORD_ARRAY = 4,
        ITEM_DWORD_ARRAY = 5,
        ITEM_MSG = 6,
        ITEM_BYTE = 7,
        ITEM_WORD = 8,
        ITEM_QWORD = 9
    };

    // One slot of a message.
    struct Node {
        // The item's type code says which member is in use: m_nDword for byte, word and dword.
        union Value {
            explicit Value(long n) : m_nQword(0) { m_nDword = static_cast<uint32_t>(n); }

            uint32_t m_nDword;
            uint64_t m_nQword;
            char* m_pString;
            unsigned char* m_pBytes;
            unsigned short* m_pWords;
            unsigned long* m_pDwords;
            CMsg2* m_pMsg;
        };

        Node() = default;
        Node(ItemType type, unsigned int count)
            : m_nType(type), m_nCount(static_cast<uint16_t>(count)) {}

        // Frees what the value owns; type, count and value become 0, the tag stays.
        void DeleteValue();

        // Make the value, of a slot that owns none, a copy of what is given: MakeArray as many
        // elements as the slot's count says, zeros for null; MakeCopy what is in a slot of the same
        // type and count. False without memory, or when a text is too long; nothing is owned then.
        bool MakeString(const char* s);
        bool MakeArray(const unsigned char* p);
        bool MakeArray(const unsigned short* p);
        bool MakeArray(const unsigned long* p);
        bool MakeMsg(const CMsg2& m);
        bool MakeCopy(const Node& other);

        uint32_t m_nTag = 0;
        uint8_t m_nType = ITEM_NONE;
        uint16_t m_nCount = 0;  // elements of an array, bytes of a text with its NUL; 0 for others
        Value m_Value{0};
    };

    // An empty message with room for size items, that grows by growBy items whenever it is full. It
    // never holds more than 65535, and with growBy 0 it never grows.
    CMsg2(unsigned int size, unsigned int growBy);
    // Decodes data as SetData does; empty when that fails.
    CMsg2(const char* data, unsigned long len, unsigned int growBy);
    CMsg2(const CMsg2& other);
    virtual ~CMsg2();

    // Makes this a deep copy of other, with its identifier, room and growth. Items of unknown type
    // are left out; of items that share a tag the last one's value stays, in the first one's place.
    // Without the memory for the copy this message stays as it was. other may be one of the
    // messages nested in this one.
    CMsg2& operator=(const CMsg2& other);
    // The same, and tells whether it was done: not without memory, nor when other is null.
    bool Copy(const CMsg2* other);
    // Sets every item of other in this message, in other's order: tags that are here already are
    // replaced in their place, new ones are appended. What has no room is left out, and so are
    // items of unknown type. The identifier stays. other may be this message or one of those
    // nested in it.
    CMsg2& operator+=(const CMsg2& other);

    // Removes all items. Identifier and room stay.
    void Empty();
    // Removes the item; those behind it move up. False when there is none with this tag.
    bool Remove(unsigned long tag);

    void SetId(unsigned long id) { m_nId = static_cast<uint32_t>(id); }
    unsigned long GetId() const { return m_nId; }

    // Items by place: indices from 0 to GetItemCount() - 1, in the order in which they were set.
    unsigned short GetItemCount() const { return m_nItemCount; }
    // The slot, or null past the end.
    const Node* GetItem(unsigned int index) const;
    // Stores the tag of the slot; false, with nothing stored, past the end.
    bool GetItemTag(unsigned int index, unsigned long& tag) const;
    // Stores the slot's tag as a text of up to four printable characters in buf (5 bytes or more);
    // false, with nothing stored, past the end.
    bool GetItemName(unsigned int index, char* buf) const;

    // Items by tag. The search begins where the last one ended, so reading items in their order
    // takes one comparison each. FindItem returns null when there is no such item. When a decoded
    // message holds a tag more than once, the first one from the cursor on is found.
    Node* FindItem(unsigned long tag);
    bool Exists(unsigned long tag) { return FindItem(tag) != nullptr; }
    // The type code; 0 when there is no such item.
    unsigned char GetItemType(unsigned long tag);
    // Elements of an array, bytes of a text with its NUL; 0 for other items and without the item.
    unsigned short GetArrayCount(unsigned long tag);

    // Getters give 0, false or null when the tag is missing or its item has another type. Nothing
    // is converted, but GetNumber reads bytes, words and dwords alike.
    unsigned long GetNumber(unsigned long tag);
    bool GetBool(unsigned long tag) { return GetByte(tag) != 0; }
    unsigned char GetByte(unsigned long tag);
    unsigned short GetWord(unsigned long tag);
    unsigned long GetDword(unsigned long tag);
    unsigned long long GetQword(unsigned long tag);
    char* GetString(unsigned long tag);
    unsigned char* GetByteArray(unsigned long tag);
    unsigned short* GetWordArray(unsigned long tag);
    unsigned long* GetDwordArray(unsigned long tag);
    CMsg2* GetMsg(unsigned long tag);

    // An item that exists keeps its place and takes the new type; a new one is appended.
    bool SetBool(unsigned long tag, bool b) { return SetByte(tag, b ? 1 : 0); }
    bool SetByte(unsigned long tag, unsigned char v);
    bool SetWord(unsigned long tag, unsigned short v);
    bool SetDword(unsigned long tag, unsigned long v);
    bool SetQword(unsigned long tag, unsigned long long v);
    // Like SetByte for a tag that the caller knows to be new: nothing is compared.
    bool AddByte(unsigned long tag, unsigned char v);
    // Copies the text. Null makes an item without text; more than 65534 characters are refused.
    bool SetString(unsigned long tag, const char* s);
    // Copies n (its low 16 bits) elements; null stands for zeros. An array of no elements is an
    // array all the same: its getter gives null only when the array was decoded.
    bool SetByteArray(unsigned long tag, unsigned int n, const unsigned char* p);
    bool SetWordArray(unsigned long tag, unsigned int n, const unsigned short* p);
    bool SetDwordArray(unsigned long tag, unsigned int n, const unsigned long* p);
    // Copies the message with everything in it. False for null.
    bool SetMsg(unsigned long tag, const CMsg2* m);

    // Write one element. False when there is no such array or index is past its end.
    bool SetByteArrayItem(unsigned long tag, unsigned int index, unsigned char v);
    bool SetWordArrayItem(unsigned long tag, unsigned int index, unsigned short v);
    bool SetDwordArrayItem(unsigned long tag, unsigned int index, unsigned long v);

    // The first four characters of text as a number, most significant first: "IN" is 0x494E0000.
    // 0 for null.
    static unsigned long GetTag(const char* text);
    // prefix and the decimal digits of number, filled with zeros to four characters: "A" and 5 is
    // "A005". 0 when the number does not fit or the prefix leaves no place.
    static unsigned long GetTag(const char* prefix, unsigned int number);
    // The tag's four bytes as a text in buf (5 bytes or more). Returns buf.
    static char* GetName(unsigned long tag, char* buf);

    // The encoding's version, for the packet header: 7 bits.
    static unsigned char GetVer();
    // The bytes that GetData writes, in 16 bits: only right up to 65535.
    unsigned short GetDataSize() const;
    // The bytes that the message takes, however many; more than 65535 can't be encoded. Saturates
    // at 0xFFFFFFFF.
    unsigned long GetTrueDataSize() const;
    // Encodes the message into buf, which must have room for GetDataSize() bytes, and returns their
    // number. A message of more than 65535 bytes is not encoded: 0, and nothing is written.
    unsigned short GetData(char* buf) const;
    // Replaces identifier and items by those encoded in the len bytes at data, which must not lie
    // in this message. Returns how many bytes the message took, or 0, with all items removed, when
    // the bytes are no message or memory is short. Bytes behind the message are not read. A nested
    // message whose bytes are none is an empty message, and no error of the outer one. Takes memory
    // in proportion to len, whatever counts and lengths the bytes announce.
    unsigned short SetData(const char* data, unsigned long len);

private:
    static CMsg2* Clone(const CMsg2& other);
    bool CopyItems(const CMsg2& other);
    bool CopyItem(unsigned long tag, const Node& item, bool is_new);
    bool HoldsMsg() const;
    bool Holds(const CMsg2& other) const;
    void MergeOwn(const CMsg2& other);
    void Swap(CMsg2& other);

    const Node* FindItem(unsigned long tag, ItemType type);
    const Node* FindElement(unsigned long tag, ItemType type, unsigned int index);
    Node* AddItem(unsigned long tag);
    bool Resize(uint32_t capacity);
    bool Store(unsigned long tag, Node item);
    bool Append(unsigned long tag, Node item);
    bool StoreNumber(unsigned long tag, ItemType type, uint32_t v);

    uint64_t EncodedSize() const;
    uint32_t Encode(char* buf, uint32_t pos) const;
    int Decode(const char* data, uint32_t len);
    int DecodeLevel(const char* data, uint32_t len);

    Node* m_pItems = nullptr;  // m_nCapacity slots; those from m_nItemCount on are empty
    uint32_t m_nId = 0;
    uint16_t m_nItemCount = 0;
    uint32_t m_nCapacity = 0;
    uint32_t m_nGrowBy;
    uint32_t m_nCursor = 0xFFFF;  // slot where the last search ended
    bool m_bDistinct = true;      // no tag is there twice: what setters built
};
