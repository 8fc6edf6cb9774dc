// The endpoint that sends messages.
#pragma once

#include "rudp/RUdpLayer2Client.h"

class CMessage;
class CMsg2;

// Puts one CMessage into each packet.
class CRUdpLayer3Client : public CRUdpLayer2Client {
public:
    // As a type: MESSAGE if the message's reliable flag is set, else DATAGRAM.
    static constexpr unsigned char USE_MESSAGE_FLAG = 255;

    // Both arguments are ignored.
    CRUdpLayer3Client(unsigned short, unsigned long) : CRUdpLayer2Client(0, 0) {}

    // Sends the message's identifier and items; its routing information is not sent. type is
    // DATAGRAM, MESSAGE or USE_MESSAGE_FLAG; for any other it returns false and leaves the error
    // code unchanged. False with an error code on failure.
    bool SendMsg(CSvcAddress const& to, CMessage const* msg, unsigned char type);

    // Its two steps, for messages that are sent more than once. Encode puts the message into the
    // packet buffer; false with an error code if it does not fit. SendEncoded sends the buffer as
    // DATAGRAM or MESSAGE, each time with a new transaction ID.
    bool Encode(CMsg2 const& msg);
    bool SendEncoded(CSvcAddress const& to, unsigned char type);
};
