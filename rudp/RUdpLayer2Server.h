// Receiving endpoints of layer 2.
#pragma once

#include "rudp/RUdpLayer2Base.h"

// Delivers every packet of this protocol version from its own layer or above, and acknowledges all
// but datagrams. Drops all other packets without an answer.
template <class Base>
class CRUdpGenericServer : public Base {
public:
    // Listens on the port at the local address host, or at any address if that is null. msg and map
    // may be null, see CRUdpLayer1Base::Open.
    bool Open(unsigned short port, char const* host, RUdpMsg* msg, CRUdpTIDMap* map);

    // Receives what is sent to the group on the interface with that address (both in network byte
    // order). May be called for several groups. False on failure, with errno set.
    bool JoinMcastGroup(unsigned long group, unsigned long iface);

protected:
    void ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck, bool& positive) override;
};

extern template class CRUdpGenericServer<CRUdpLayer2Base>;

// Refuses (NACK) packets from a layer below.
class CRUdpLayer2Server : public CRUdpGenericServer<CRUdpLayer2Base> {
protected:
    void ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck, bool& positive) override;

    // The rule of this layer and those above: refuses packets from layers below lowest.
    void ProcessFrom(unsigned char lowest, RUdpMsg const& msg, bool& deliver, bool& sendAck,
                     bool& positive);
};
