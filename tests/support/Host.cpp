#include "tests/support/Host.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

const char* const OWN_NAMESPACE = "/proc/thread-self/ns/net";

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

// In a user namespace, which root without capabilities needs too.
bool BecomeRoot() {
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER) != 0) {
        return false;
    }
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
    WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
    return getuid() == 0;
}

bool LeaveNamespaces() {
    return unshare(CLONE_NEWNS | CLONE_NEWNET) == 0;
}

bool MakePrivate() {
    return mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Keeps our mounts from the rest of the system. In a build chroot the root is no mount point, so
// there is no path to the mount it is on; a child that enters our namespace again starts at that
// mount's root.
bool HideMounts() {
    if (MakePrivate()) {
        return true;
    }
    const pid_t child = fork();
    if (child == 0) {
        const int own = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
        _exit(setns(own, CLONE_NEWNS) == 0 && MakePrivate() ? 0 : 1);
    }
    int status = 1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

bool prepared = true;  // false when Prepare() failed

}  // namespace

bool Host::Prepare() {
    prepared = (LeaveNamespaces() || (BecomeRoot() && LeaveNamespaces())) && HideMounts() &&
               mount("run", "/run", "tmpfs", 0, nullptr) == 0 &&
               mount("log", "/var/log", "tmpfs", 0, nullptr) == 0;
    return prepared;
}

Host::Host() : m_ns(-1) {
    if (!prepared) {
        return;
    }
    const int before = open(OWN_NAMESPACE, O_RDONLY | O_CLOEXEC);
    if (unshare(CLONE_NEWNET) != 0) {
        perror("unshare(CLONE_NEWNET)");
        abort();
    }
    m_ns = open(OWN_NAMESPACE, O_RDONLY | O_CLOEXEC);
    setns(before, CLONE_NEWNET);
    close(before);
    Run("ip link set lo up");
}

Host::~Host() {
    close(m_ns);
}

Host::Scope::Scope(const Host& host) : m_before(open(OWN_NAMESPACE, O_RDONLY | O_CLOEXEC)) {
    if (setns(host.m_ns, CLONE_NEWNET) != 0) {
        perror("setns");  // the test must not continue on the machine's own network
        abort();
    }
}

Host::Scope::~Scope() {
    setns(m_before, CLONE_NEWNET);
    close(m_before);
}

int Host::Run(const char* command) const {
    const Scope on(*this);
    return system(command);  // NOLINT(cert-env33-c): the test's own words
}

bool Host::Connect(const Host& a, const char* address_a, const Host& b, const char* address_b) {
    const std::string other_end =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(b.m_ns);
    const auto configure = [](const char* address) {
        return "ip addr add " + std::string(address) +
               "/24 dev eth0 && ip link set eth0 up && ip route add 224.0.0.0/4 dev eth0";
    };
    // Both ends can't be created under one name on one host, so the other end is renamed later.
    const std::string create =
        "ip link add eth0 type veth peer name far0 && ip link set far0 netns " + other_end;
    // A link carries nothing until the system has seen both ends up, which may take a while.
    const char* const await_carrier =
        "for n in $(seq 100); do ip -o link show eth0 | grep -q 'state UP' && exit 0; "
        "sleep 0.05; done; exit 1";
    return a.Run((create + " && " + configure(address_a)).c_str()) == 0 &&
           b.Run(("ip link set far0 name eth0 && " + configure(address_b)).c_str()) == 0 &&
           a.Run(await_carrier) == 0 && b.Run(await_carrier) == 0;
}
