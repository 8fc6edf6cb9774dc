// What the endpoints of layer 2 and above have in common.
#pragma once

#include "rudp/RUdpLayer1Base.h"

// An endpoint with a layer number. GetLayer is not virtual: each class compares with the number of
// its own layer.
class CRUdpLayer2Base : public CRUdpLayer1Base {
public:
    static unsigned char GetLayer() { return 2; }

    // As in layer 1. Clients and servers have shorter forms.
    bool Open(bool server, char const* host, unsigned short port, RUdpMsg* msg, CRUdpTIDMap* map);
};
