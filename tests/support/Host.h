// Simulated hosts of a network that exists for one test only.
#pragma once

// A network namespace with loopback up. Sockets and child processes stay on the host on which they
// were created, so one test simulates several hosts by entering one after the other:
//
//     Host device, peer;
//     Host::Connect(device, "10.77.0.1", peer, "10.77.0.2");
//     { Host::Scope on(device); start the daemon }
//
// Needs namespaces, as root or as a user who may create them; see Host::Prepare().
class Host {
public:
    // The reason for skipping a test if Prepare() failed.
    static constexpr const char* NEEDED =
        "needs network namespaces, and neither as root nor in a user namespace can one be had";

    // Call once, first, while the process has one thread: moves the test into namespaces of its
    // own, with a /run and a /var/log of its own. False: not possible here, and no host may be
    // entered.
    static bool Prepare();

    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // The calling thread is on the host during the lifetime of the scope.
    class Scope {
    public:
        explicit Scope(const Host& host);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        int m_before;
    };

    // Connects two hosts by a cable. At both ends the interface is eth0, with a /24 address and the
    // route for multicast. False on failure.
    static bool Connect(const Host& a, const char* address_a, const Host& b, const char* address_b);

    // Runs a shell command on the host; returns its exit status.
    int Run(const char* command) const;

private:
    int m_ns;
};
