#include "rudp/RUdpLayer2Base.h"

bool CRUdpLayer2Base::Open(bool server, char const* host, unsigned short port, RUdpMsg* msg,
                           CRUdpTIDMap* map) {
    return CRUdpLayer1Base::Open(server, host, port, msg, map);
}
