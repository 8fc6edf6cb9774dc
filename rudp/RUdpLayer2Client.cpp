#include "rudp/RUdpLayer2Client.h"

#include "net/InetAddress.h"
#include "net/SvcAddress.h"

template <class Base>
bool CRUdpGenericClient<Base>::Open(char const* host, RUdpMsg* msg) {
    return Base::Open(false, host, 0, msg, nullptr);
}

template <class Base>
bool CRUdpGenericClient<Base>::SendMsg(CSvcAddress const& to, RUdpMsg* msg, unsigned char type,
                                       unsigned char layer) {
    if (msg == nullptr) {
        return Base::Fail(Base::NO_MESSAGE);
    }
    CInetAddress address;
    address.SetAddress(static_cast<long>(to.GetHost()), to.GetPort());
    return Base::SendMsg(address, msg, type, layer);
}

template <class Base>
void CRUdpGenericClient<Base>::ProcessMessage(RUdpMsg const&, bool& deliver, bool& sendAck,
                                              bool& positive) {
    deliver = sendAck = positive = false;
}

template class CRUdpGenericClient<CRUdpLayer2Base>;

bool CRUdpLayer2Client::SendMsg(CSvcAddress const& to, RUdpMsg* msg, unsigned char type,
                                unsigned char layer) {
    if (layer < 2 || (layer == 2 && type != DATAGRAM && type != MESSAGE)) {
        return false;
    }
    return CRUdpGenericClient::SendMsg(to, msg, type, layer);
}
