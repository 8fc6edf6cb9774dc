// Sending endpoints of layer 2.
#pragma once

#include "rudp/RUdpLayer2Base.h"

class CSvcAddress;

// Neither delivers nor acknowledges what it receives.
template <class Base>
class CRUdpGenericClient : public Base {
public:
    // Binds to the local address host; with null the first message does. The system chooses the
    // port. msg may be null, see CRUdpLayer1Base::Open.
    bool Open(char const* host, RUdpMsg* msg);

    // As in layer 1.
    bool SendMsg(CSvcAddress const& to, RUdpMsg* msg, unsigned char type, unsigned char layer);

protected:
    void ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck, bool& positive) override;
};

extern template class CRUdpGenericClient<CRUdpLayer2Base>;

class CRUdpLayer2Client : public CRUdpGenericClient<CRUdpLayer2Base> {
public:
    // Both arguments are ignored.
    CRUdpLayer2Client(unsigned short, unsigned long) {}

    // As in layer 1, for layers from 2 on; on layer 2, type is DATAGRAM or MESSAGE. Otherwise it
    // returns false and leaves the error code unchanged.
    bool SendMsg(CSvcAddress const& to, RUdpMsg* msg, unsigned char type, unsigned char layer);
};
