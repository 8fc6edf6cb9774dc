// The endpoint that receives messages.
#pragma once

#include "rudp/RUdpLayer2Server.h"

class CMessage;

// Takes one CMessage out of each packet. Refuses (NACK) packets from a layer below.
class CRUdpLayer3Server : public CRUdpLayer2Server {
public:
    static unsigned char GetLayer() { return 3; }

    // Waits for the next message as layer 1 does and stores it in msg: its content, its type, the
    // sender's address from the socket, and the other routing information from the header. False
    // with an error code on failure. A packet whose payload is no message is acknowledged too,
    // because repeating it would not help.
    bool WaitForMsg(CMessage* msg, unsigned long timeoutMs);

protected:
    void ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck, bool& positive) override;
};
