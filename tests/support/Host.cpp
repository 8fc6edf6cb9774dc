#include "tests/support/Host.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
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

// Without root, become root of a user namespace.
bool BecomeRoot() {
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (uid == "0") {
        return true;
    }
    if (unshare(CLONE_NEWUSER) != 0) {
        return false;
    }
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
    WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
    return getuid() == 0;
}

}  // namespace

bool Host::Prepare() {
    return BecomeRoot() && unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
           mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("run", "/run", "tmpfs", 0, nullptr) == 0 &&
           mount("log", "/var/log", "tmpfs", 0, nullptr) == 0;
}

Host::Host() : m_ns(-1) {
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
    setns(host.m_ns, CLONE_NEWNET);
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
    // Two ends of one name can't be made in one place, so the other end is renamed where it goes.
    const std::string create =
        "ip link add eth0 type veth peer name far0 && ip link set far0 netns " + other_end;
    return a.Run((create + " && " + configure(address_a)).c_str()) == 0 &&
           b.Run(("ip link set far0 name eth0 && " + configure(address_b)).c_str()) == 0;
}
