// The message that peers on the bus exchange: an identifier and an ordered list of tagged values.
//
// Numbers in an unsigned long are 32 bits wide on every host: arguments are cut to 32 bits, so
// (unsigned long)-1 and 0xFFFFFFFF are the same tag. The same applies to the elements of a dword
// array, which are the host's unsigned long in memory and 4 bytes each when encoded.
#pragma once

#include <cstdint>

// Version of the encoding that GetData writes and SetData reads.
extern const unsigned char rudp_msg2_ver;

// Owns its items with their texts, arrays and nested messages. A pointer from a getter is valid
// until its item is set again or removed, or the message is emptied, assigned, decoded or
// destroyed.
//
// Setters return whether the item now holds the new value; a setter that returns false (no room, no
// memory) has changed nothing. Their arguments may point into this message.
//
// For one thread: even a lookup moves the cursor.
class CMsg2 {
public:
    // Item type codes, in memory and in the encoding. Other codes arrive only from a peer: such an
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

        // Frees what the value owns. Type, count and value become 0; the tag stays.
        void DeleteValue();

        // Set the value of a slot that owns none to a copy of the argument. MakeArray copies as
        // many elements as the slot's count, or zeros for null; MakeCopy the value of a slot of the
        // same type and count. False if memory is short or a text is too long; the slot owns
        // nothing then.
        bool MakeString(const char* s);
        bool MakeArray(const unsigned char* p);
        bool MakeArray(const unsigned short* p);
        bool MakeArray(const unsigned long* p);
        bool MakeMsg(const CMsg2& m);
        bool MakeCopy(const Node& other);

        uint32_t m_nTag = 0;
        uint8_t m_nType = ITEM_NONE;
        uint16_t m_nCount = 0;  // elements of an array, bytes of a text with its NUL; otherwise 0
        Value m_Value{0};
    };

    // An empty message with room for size items, which grows by growBy items whenever it is full,
    // up to 65535. With growBy 0 it never grows.
    CMsg2(unsigned int size, unsigned int growBy);
    // Decodes data as SetData does; empty if that fails.
    CMsg2(const char* data, unsigned long len, unsigned int growBy);
    CMsg2(const CMsg2& other);
    virtual ~CMsg2();

    // Makes this a deep copy of other, with its identifier, room and growth. Items of unknown type
    // are omitted; of items with the same tag, the last one's value takes the first one's place.
    // If memory is short this message is unchanged. other may be nested in this one.
    CMsg2& operator=(const CMsg2& other);
    // The same. False, with nothing changed, if memory is short or other is null.
    bool Copy(const CMsg2* other);
    // Whether a copy is known to have the same encoding. Always true for what setters have built.
    bool EqualsItsCopy() const;
    // Sets every item of other in this message, in other's order: existing tags are replaced in
    // place, new ones appended. Items of unknown type, and those without room, are omitted. The
    // identifier stays. other may be this message: each step reads what the steps before it have
    // left, so only a message with repeated tags changes. other may be nested in this message: then
    // all steps read it as it was.
    CMsg2& operator+=(const CMsg2& other);

    // Removes all items. Identifier and room stay.
    void Empty();
    // Removes the item; later ones move up. False if there is none with this tag.
    bool Remove(unsigned long tag);

    void SetId(unsigned long id) { m_nId = static_cast<uint32_t>(id); }
    unsigned long GetId() const { return m_nId; }

    // Items by position: indices from 0 to GetItemCount() - 1, in the order in which they were set.
    unsigned short GetItemCount() const { return m_nItemCount; }
    // The slot, or null past the end.
    const Node* GetItem(unsigned int index) const;
    // Stores the tag of the slot; false, with nothing stored, past the end.
    bool GetItemTag(unsigned int index, unsigned long& tag) const;
    // Stores the slot's tag as a text of up to four printable characters in buf (5 bytes or more);
    // false, with nothing stored, past the end.
    bool GetItemName(unsigned int index, char* buf) const;

    // Items by tag. A search begins at the cursor, where the last one ended, so reading items in
    // their order takes one comparison each. FindItem returns null if there is no such item. If a
    // decoded message holds a tag more than once, the first one from the cursor on is found.
    Node* FindItem(unsigned long tag);
    bool Exists(unsigned long tag) { return FindItem(tag) != nullptr; }
    // The type code; 0 if there is no such item.
    unsigned char GetItemType(unsigned long tag);
    // Elements of an array, bytes of a text with its NUL; 0 for other items and if there is none.
    unsigned short GetArrayCount(unsigned long tag);

    // Getters return 0, false or null if the tag is missing or its item has another type. They
    // convert nothing, except that GetNumber reads bytes, words and dwords.
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

    // An existing item keeps its position and takes the new type; a new one is appended.
    bool SetBool(unsigned long tag, bool b) { return SetByte(tag, b ? 1 : 0); }
    bool SetByte(unsigned long tag, unsigned char v);
    bool SetWord(unsigned long tag, unsigned short v);
    bool SetDword(unsigned long tag, unsigned long v);
    bool SetQword(unsigned long tag, unsigned long long v);
    // Like SetByte for a tag that the caller knows to be new: it compares nothing.
    bool AddByte(unsigned long tag, unsigned char v);
    // Copies the text. Null makes an item without text; more than 65534 characters are refused.
    bool SetString(unsigned long tag, const char* s);
    // Copies n (its low 16 bits) elements; null means zeros. The getter of an empty array returns
    // null only if the array was decoded.
    bool SetByteArray(unsigned long tag, unsigned int n, const unsigned char* p);
    bool SetWordArray(unsigned long tag, unsigned int n, const unsigned short* p);
    bool SetDwordArray(unsigned long tag, unsigned int n, const unsigned long* p);
    // Copies the message and its content. False for null.
    bool SetMsg(unsigned long tag, const CMsg2* m);

    // Write one element. False if there is no such array or index is past its end.
    bool SetByteArrayItem(unsigned long tag, unsigned int index, unsigned char v);
    bool SetWordArrayItem(unsigned long tag, unsigned int index, unsigned short v);
    bool SetDwordArrayItem(unsigned long tag, unsigned int index, unsigned long v);

    // The first four characters of text as a number, most significant first: "IN" is 0x494E0000.
    // 0 for null.
    static unsigned long GetTag(const char* text);
    // prefix and the decimal digits of number, padded with zeros to four characters: "A" and 5 is
    // "A005". 0 if the number does not fit or the prefix leaves no room.
    static unsigned long GetTag(const char* prefix, unsigned int number);
    // The tag's four bytes as a text in buf (5 bytes or more). Returns buf.
    static char* GetName(unsigned long tag, char* buf);

    // The encoding's version, for the packet header: 7 bits.
    static unsigned char GetVer();
    // The number of bytes that GetData writes, in 16 bits: correct only up to 65535.
    unsigned short GetDataSize() const;
    // The size of the encoded message; more than 65535 bytes can't be encoded. Saturates at
    // 0xFFFFFFFF.
    unsigned long GetTrueDataSize() const;
    // Encodes the message into buf, which must have room for GetDataSize() bytes, and returns their
    // number. A message of more than 65535 bytes is not encoded: returns 0 and writes nothing.
    unsigned short GetData(char* buf) const;
    // Replaces identifier and items by those encoded in the len bytes at data, which must not be
    // part of this message. Returns how many bytes the message took, or 0, with all items removed,
    // if the bytes are no message or memory is short. Bytes after the message are ignored. An
    // undecodable nested message becomes empty; the outer one stays valid. Takes memory in
    // proportion to len, whatever counts and lengths the bytes claim.
    unsigned short SetData(const char* data, unsigned long len);

private:
    static CMsg2* Clone(const CMsg2& other);
    bool CopyItems(const CMsg2& other);
    bool CopyItem(unsigned long tag, const Node& item, bool is_new);
    bool HoldsMsg() const;
    bool Holds(const CMsg2& other) const;
    void MergeNested(const CMsg2& other);
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
    bool m_bDistinct = true;      // no tag occurs twice, as in everything that setters build
};
