#include "tools/doctor/Carried.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "tools/base/Descriptor.h"

namespace {

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

// What the kernel tells with a socket; an older one has a shorter structure.
std::optional<Carried> FromInfo(const nlmsghdr* message) {
    const auto* const body = static_cast<const inet_diag_msg*>(NLMSG_DATA(message));
    int left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof *body));
    const auto* attribute = reinterpret_cast<const rtattr*>(body + 1);
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == INET_DIAG_INFO &&
            RTA_PAYLOAD(attribute) >= offsetof(tcp_info, tcpi_bytes_retrans) + sizeof(uint64_t)) {
            tcp_info info = {};
            memcpy(&info, RTA_DATA(attribute), std::min(sizeof info, RTA_PAYLOAD(attribute)));
            return Carried{info.tcpi_bytes_sent - info.tcpi_bytes_retrans,
                           info.tcpi_bytes_received};
        }
    }
    return std::nullopt;
}

// True when the answer is complete or there is none.
bool ReadPart(const char* data, size_t size, unsigned long inode, std::optional<Carried>& carried) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(data);
    for (unsigned int left = static_cast<unsigned int>(size); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            return true;
        }
        if (static_cast<const inet_diag_msg*>(NLMSG_DATA(message))->idiag_inode == inode) {
            carried = FromInfo(message);
        }
    }
    return false;
}

}  // namespace

std::optional<Carried> ReadCarried(unsigned long inode) {
    const Descriptor link(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    Request request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_INET;
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_ext = 1 << (INET_DIAG_INFO - 1);
    request.body.idiag_states = 1U << 1;  // established ones
    if (send(link.Get(), &request, sizeof request, 0) < 0) {
        return std::nullopt;
    }
    std::optional<Carried> carried;
    alignas(nlmsghdr) char data[32768];
    for (bool is_over = false; !is_over;) {
        const ssize_t got = recv(link.Get(), data, sizeof data, 0);
        is_over = got <= 0 || ReadPart(data, static_cast<size_t>(got), inode, carried);
    }
    return carried;
}
