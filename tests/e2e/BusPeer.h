// A peer on the bus, simulated byte by byte on the studio's host.
#pragma once

#include <string>
#include <vector>

#include "tests/support/Hex.h"
#include "tests/support/Host.h"

// Receives what is sent to the group on port 2055, and sends from a port of its own.
class BusPeer {
public:
    // address and group are dotted quads.
    BusPeer(const Host& host, const char* address, const char* group = "239.192.255.4");
    ~BusPeer();
    BusPeer(const BusPeer&) = delete;
    BusPeer& operator=(const BusPeer&) = delete;

    // Sends the bytes to port 2060 of that address.
    void Send(const std::string& bytes, const char* to);

    // The same, from that port, as another sender.
    void SendFrom(unsigned short port, const std::string& bytes, const char* to);

    // Datagrams received since the last call: those to the group, and answers to the sender.
    std::vector<std::string> Reports() { return Take(m_listener); }
    std::vector<std::string> Answers() { return Take(m_sender); }

    // A packet of layer 3 with the next transaction ID: header and payload.
    std::string Packet(char type, const std::string& payload);

private:
    static std::vector<std::string> Take(int sock);

    static void SendBy(int sock, const std::string& bytes, const char* to);

    const Host& m_host;
    const char* m_address;
    int m_listener;
    int m_sender;
    unsigned char m_tid = 0;
};
