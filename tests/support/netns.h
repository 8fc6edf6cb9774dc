// Network namespaces of a test's own: nothing that it sends leaves the machine.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

class NetNs {
public:
    // Moves this process into a new network namespace that has only loopback, up. Not with threads
    // running. False, with a message on standard error, where namespaces are not allowed.
    static bool Enter();

    // Runs a shell command in this namespace. Whether it ended with 0.
    static bool Run(const std::string& command);
};

// A child process in a namespace of its own, joined with this process's namespace, which must be
// one that Enter made, by a veth pair.
class NetNsChild {
public:
    // The pair's end here is called "peer" and has the address here, its end there is called "eth0"
    // and has the address there (both with a prefix length: "10.77.0.1/24"). Multicasts go to the
    // pair by default on both sides. body runs in the child once all this is so; its result is the
    // child's exit status.
    NetNsChild(const std::string& here, const std::string& there, const std::function<int()>& body);

    // Kills the child if it still runs.
    ~NetNsChild();
    NetNsChild(const NetNsChild&) = delete;
    NetNsChild& operator=(const NetNsChild&) = delete;

    // Whether the namespaces are joined and the child runs.
    bool Joined() const { return m_bJoined; }

    // Waits for the end of the child. Returns its exit status, -1 when it was killed.
    int Wait();

private:
    pid_t m_nPid = -1;
    bool m_bJoined = false;
};
