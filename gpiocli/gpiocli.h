// Subscriptions to the inputs of remote GPIO servers.
#pragma once

#include <cstdint>

#include "tqr/tqrlimits.h"

class CTQRClient;

// Calls visit(entry) for every entry of a set (bit k = entry k), from the lowest up.
template <class Visitor>
void for_each_entry(unsigned long set, Visitor visit) {
    for (; set != 0; set &= set - 1) {
        visit(__builtin_ctzl(set));
    }
}

// A table of subscriptions, one entry per channel: entry k follows one GPI of one server for
// channel k + 1. Entries with the same server (address and port) share one connection, so there is
// one connection to a server however many channels follow it.
//
// An entry is empty, connected or disconnected (its first connection failed, or it broke). Only
// reconnect() reconnects. Entry numbers out of range are treated as empty entries. Owns its
// connections. For one thread; not copied.
class CGPIOClient {
public:
    // A table of count empty entries; without entries if memory is short.
    explicit CGPIOClient(int count);
    ~CGPIOClient();
    CGPIOClient(const CGPIOClient&) = delete;
    CGPIOClient& operator=(const CGPIOClient&) = delete;

    // The set of the non-empty entries among the first 32: bit k = entry k.
    unsigned long entries() const { return m_nUsed; }

    // The socket of the entry's connection for the caller's select(): -1 if the entry is empty or
    // disconnected. Entries that share a connection return the same socket.
    int get_fd(int entry);

    // Applies to connections opened from now on.
    void set_limits(const CTQRLimits& limits) { m_limits = limits; }

    // Closes the connections whose peers have vanished, as CTQRClient::drop_vanished does. True if
    // there was one: don't use sockets that get_fd() returned before.
    bool drop_vanished();

    // Closes the entry, then points it at a server (ip in network, port in host byte order) and at
    // its GPI number gpi + 1, and subscribes. Connects, and waits for the connection, unless
    // another entry already has it. Returns 0; -1 if a new connection could not be made, which
    // leaves the entry disconnected. (Also 0 if memory was too short for the connection's buffer;
    // reconnect() handles both.)
    int open(unsigned long entry, unsigned long ip, unsigned short port, unsigned char gpi);

    // Empties the entry. The connection is closed with the last entry that uses it. Until then the
    // entry's subscription stays active at the server, and its lines are ignored here.
    void close(unsigned long entry);

    // Reconnects a disconnected entry, waiting for the connection, then renews the subscription of
    // every entry of that server. Returns the new socket; -1 if there was nothing to do or it
    // failed.
    int reconnect(int entry);

    // Takes lines from the entry's connection, without waiting, until one is the state of a GPI
    // that some entries follow. Returns its state text and stores the set of those entries in mask
    // (bit k = entry k, of the first 32 entries) unless mask is null; returns null if no complete
    // line is left. The text is valid until the next call for an entry of that connection.
    char* receive(int entry, unsigned long* mask);

    // Writes the table to /var/log/gpiocli.txt, replacing the file's content.
    void print_cons();

private:
    struct ConEntry {
        CTQRClient* client;  // shared by all with the same ip and port; null: empty or no memory
        uint32_t ip;         // network byte order
        uint16_t port;       // host byte order
        uint8_t gpi;         // counted from 0
    };

    ConEntry* find(unsigned long entry);
    CTQRClient* new_client() const;
    CTQRClient* find_client(uint32_t ip, uint16_t port);
    bool join(ConEntry& e);
    int count_users(const CTQRClient* client);
    unsigned long followers(const CTQRClient* client, long gpi_number);

    int m_nCount;
    ConEntry* m_pCons;
    uint32_t m_nUsed = 0;  // the entries between open() and close(), of the first 32
    CTQRLimits m_limits;
};
