// orvex-gpio as it runs.
#pragma once

#include <string>

#include "tools/base/Log.h"
#include "tools/base/Notify.h"
#include "tools/base/Signals.h"
#include "tools/gpio/Config.h"
#include "tools/gpio/Hardware.h"
#include "tools/server/ControlServer.h"

// A control server whose pins are lines of GPIO chips.
class Service {
public:
    // Requests the lines and listens. Throws std::system_error if it can't listen.
    explicit Service(const GpioConfig& config);

    // Serves until SIGINT or SIGTERM, then leaves the lines. SIGHUP reads the file again; signals
    // must catch it.
    void Run(Signals& signals);

private:
    void Tell(const ControlServer::Event& event);
    bool Listen(const std::vector<ListenConfig>& wanted);
    void ApplyLines(const GpioConfig& config);
    void Reload();
    void TellProblems();

    GpioConfig m_config;
    Log m_log;
    ControlServer m_server;
    Hardware m_hardware;
    Notify m_notify;
    std::string m_told;  // the problems that clients know
};
