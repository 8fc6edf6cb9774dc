// A device with the peers that the test itself plays: a control server, a remote server, the bus.
#pragma once

#include <memory>

#include "tests/e2e/BusPeer.h"
#include "tests/e2e/Site.h"
#include "tests/support/loopback.h"

class PeersSite : public Site {
protected:
    void StartPeers() {
        {
            const Host::Scope on(device);
            m_tqrd = std::make_unique<LoopbackServer>(93);
        }
        const Host::Scope on(studio);
        m_remote = std::make_unique<LoopbackServer>(93, STUDIO_ADDRESS);
        m_bus = std::make_unique<BusPeer>(studio, STUDIO_ADDRESS);
    }

    std::unique_ptr<LoopbackServer> m_tqrd;
    std::unique_ptr<LoopbackServer> m_remote;
    std::unique_ptr<BusPeer> m_bus;
};
