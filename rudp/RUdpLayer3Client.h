// The endpoint that sends messages.
#pragma once

#include "rudp/RUdpLayer2Client.h"

class CMessage;
class CMsg2;

// Puts one CMessage into each packet.
class CRUdpLayer3Client : public CRUdpLayer2Client {
public:
    // A type to send with: MESSAGE when the message's reliable flag is set, else DATAGRAM.
    static constexpr unsigned char USE_MESSAGE_FLAG = 255;

    // Neither argument is used.
    CRUdpLayer3Client(unsigned short, unsigned long) : CRUdpLayer2Client(0, 0) {}

    // Sends the message's identifier and items; its routing information is not sent. type is
    // DATAGRAM, MESSAGE or USE_MESSAGE_FLAG; any other gives false and leaves the error code as it
    // was. False with an error code on failure.
    bool SendMsg(CSvcAddress const& to, CMessage const* msg, unsigned char type);

    // The two steps of it, for what is sent more than once. Encode puts the message into the packet
    // buffer; false with an error code when it does not fit. SendEncoded then sends what is in the
    // buffer, DATAGRAM or MESSAGE, each time as a message with a transaction ID of its own.
    bool Encode(CMsg2 const& msg);
    bool SendEncoded(CSvcAddress const& to, unsigned char type);
};
