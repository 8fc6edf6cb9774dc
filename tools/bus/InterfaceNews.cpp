#include "tools/bus/InterfaceNews.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>

void InterfaceNews::Open() {
    m_socket =
        Descriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        m_socket.Close();
    }
}

// The news themselves do not matter: the caller looks at the interface. After more than the buffer
// holds, ENOBUFS is news too.
bool InterfaceNews::Take() {
    char buffer[8192];
    bool news = false;
    while (recv(m_socket.Get(), buffer, sizeof buffer, 0) >= 0 || errno == ENOBUFS) {
        news = true;
    }
    return news;
}
