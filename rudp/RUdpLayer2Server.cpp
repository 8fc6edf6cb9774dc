#include "rudp/RUdpLayer2Server.h"

#include "rudp/RUdpMsg.h"

template <class Base>
bool CRUdpGenericServer<Base>::Open(unsigned short port, char const* host, RUdpMsg* msg,
                                    CRUdpTIDMap* map) {
    return Base::Open(true, host, port, msg, map);
}

template <class Base>
bool CRUdpGenericServer<Base>::JoinMcastGroup(unsigned long group, unsigned long iface) {
    return Base::JoinMcastGroup(group, iface);
}

template <class Base>
void CRUdpGenericServer<Base>::ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck,
                                              bool& positive) {
    deliver = msg.GetRUdpVersion() == Base::GetVer() && msg.GetLayer() >= Base::GetLayer();
    sendAck = deliver && msg.GetMsgType() != Base::DATAGRAM;
    positive = true;
}

template class CRUdpGenericServer<CRUdpLayer2Base>;

void CRUdpLayer2Server::ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck,
                                       bool& positive) {
    ProcessFrom(GetLayer(), msg, deliver, sendAck, positive);
}

void CRUdpLayer2Server::ProcessFrom(unsigned char lowest, RUdpMsg const& msg, bool& deliver,
                                    bool& sendAck, bool& positive) {
    if (msg.GetLayer() < lowest) {
        deliver = false;
        sendAck = true;
        positive = false;
        return;
    }
    CRUdpGenericServer::ProcessMessage(msg, deliver, sendAck, positive);
}
