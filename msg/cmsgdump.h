// Messages as one line of text, for debugging.
//
//   MSG  [INDI FFFFFFFE=00000005,00010208=01,4E414D45='ab']
//
// The line contains the kind of packet, the identifier's characters and all items in their order,
// as label=value. Numbers are hexadecimal, texts are in single quotes, arrays in braces; a nested
// message is written like a datagram.
#pragma once

class CMessage;
class CMsg2;

// The size of the text with its NUL. A longer text is truncated.
const unsigned int MSG_TEXT_SIZE = 2000;

// Bits of flags: what an item's label shows. With both, a "/" separates them.
const int MSG_LABEL_TAG = 1;   // the tag in hexadecimal
const int MSG_LABEL_NAME = 2;  // the tag's characters; "*id*" and "refi" for the two special tags

// Writes the line into buf, MSG_TEXT_SIZE bytes, and returns buf; null, with nothing written, if
// msg or buf is null. type selects the word for the kind of packet: a packet's message type, '?'
// for blanks or ' ' for none.
char* Msg2String(const CMsg2* msg, unsigned char type, char* buf, int flags);

// The same with the message's own type. msg must not be null.
char* Message2String(const CMessage* msg, char* buf, int flags);
