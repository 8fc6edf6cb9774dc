// Tells a loop that interfaces, addresses or routes of this host have changed.
#pragma once

#include "tools/base/Descriptor.h"

class InterfaceNews {
public:
    // Opens a socket to the system. Without it, IsOpen() is false, and a program has to look itself
    // now and then.
    void Open();
    bool IsOpen() const { return m_socket.IsOpen(); }

    // Readable when there is news; -1 if not open.
    int Get() const { return m_socket.Get(); }

    // Whether there was news since the last call. Never waits.
    bool Take();

private:
    Descriptor m_socket;
};
