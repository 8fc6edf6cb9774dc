// Messages as one line of text, for debugging.
//
//   MSG  [INDI FFFFFFFE=00000005,00010208=01,4E414D45='ab']
//
// The line holds the kind of packet, the identifier's characters and every item in its order, as
// label=value. Numbers are hexadecimal, texts stand in single quotes, arrays in braces; a nested
// message is written as a datagram of its own.
#pragma once

class CMessage;
class CMsg2;

// Room that the text may take, with its NUL. A longer text is cut.
const unsigned int MSG_TEXT_SIZE = 2000;

// Bits of flags: what an item's label shows. With both, a "/" stands between.
const int MSG_LABEL_TAG = 1;   // the tag in hexadecimal
const int MSG_LABEL_NAME = 2;  // the tag's characters; "*id*" and "refi" for the two special tags

// Writes the line into buf, MSG_TEXT_SIZE bytes, and returns buf; null, with nothing written, when
// msg or buf is null. type chooses the word for the kind of packet: a packet's message type, '?'
// for blanks or ' ' for none.
char* Msg2String(const CMsg2* msg, unsigned char type, char* buf, int flags);

// The same with the message's own type. msg must exist.
char* Message2String(const CMessage* msg, char* buf, int flags);
