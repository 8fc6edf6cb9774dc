#include "gpiocli/gpiocli.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "tqr/line.h"
#include "tqr/tqr_util.h"
#include "tqr/tqrcli.h"
#include "tqr/trace.h"

namespace {

const char* const fname = "/var/log/gpiocli.txt";

// As CTQRClient::open. client is null if there was no memory for it; then there is no connection.
int connect_client(CTQRClient* client, uint32_t ip, uint16_t port) {
    return client == nullptr ? -1 : client->open(ip, static_cast<short>(port), LINE_SIZE);
}

void subscribe(CTQRClient& client, uint8_t gpi) {
    char line[16];
    write_line(line, "ADD GPI ", gpi + 1, "\n");
    client.send(line);
}

// The state text of a "GPI" line, null for any other line.
char* parse_state(char* line, long& gpi_number) {
    if (strncmp(line, "GPI ", 4) != 0) {
        return nullptr;
    }
    const char* behind = nullptr;
    gpi_number = tqr_strtol(line + 4, &behind, 0);
    return *behind == ' ' ? line + (behind - line) + 1 : nullptr;
}

// The set of this entry alone; empty for entries from 32 on.
uint32_t set_of(unsigned long entry) {
    const unsigned long bits = 32;
    return entry < bits ? UINT32_C(1) << entry : 0;
}

}  // namespace

CGPIOClient::CGPIOClient(int count)
    : m_nCount(count), m_pCons(new (std::nothrow) ConEntry[static_cast<size_t>(count)]()) {
    if (m_pCons == nullptr) {
        m_nCount = 0;
    }
}

CGPIOClient::~CGPIOClient() {
    for (int k = 0; k < m_nCount; ++k) {
        close(static_cast<unsigned long>(k));
    }
    delete[] m_pCons;
}

int CGPIOClient::get_fd(int entry) {
    const ConEntry* e = find(static_cast<unsigned long>(entry));
    return e == nullptr || e->client == nullptr ? -1 : e->client->get_fd();
}

bool CGPIOClient::drop_vanished() {
    bool dropped = false;
    for (int k = 0; k < m_nCount; ++k) {
        dropped = (m_pCons[k].client != nullptr && m_pCons[k].client->drop_vanished()) || dropped;
    }
    return dropped;
}

int CGPIOClient::open(unsigned long entry, unsigned long ip, unsigned short port,
                      unsigned char gpi) {
    const DottedQuad server(ip);
    if (dbg != 0) {
        printf("CGPIOClient::open(%lu,%s:%d/%d)\n", entry, server.text, port, gpi);
    }
    close(entry);
    ConEntry* e = find(entry);
    if (e == nullptr) {
        return -1;
    }
    const uint32_t address = static_cast<uint32_t>(ip);
    CTQRClient* shared = find_client(address, port);
    *e = {shared, address, port, gpi};
    m_nUsed |= set_of(entry);
    if (shared == nullptr) {
        e->client = new_client();
        if (dbg != 0) {
            printf("Opening connection to %s:%d\n", server.text, port);
        }
        if (connect_client(e->client, address, port) == -1) {
            fprintf(stderr, "CGPIOClient Failed to connect to %s:%d/%d\n", server.text, port, gpi);
            return -1;
        }
    }
    subscribe(*e->client, gpi);
    if (dbg != 0) {
        print_cons();
    }
    return 0;
}

void CGPIOClient::close(unsigned long entry) {
    ConEntry* e = find(entry);
    m_nUsed &= ~set_of(entry);
    if (e == nullptr || (e->client == nullptr && e->ip == 0 && e->gpi == 0)) {
        return;
    }
    if (e->client != nullptr && count_users(e->client) == 1) {
        if (dbg != 0) {
            printf("Deleteing connection to %s\n", DottedQuad(e->ip).text);
        }
        delete e->client;
    }
    e->client = nullptr;
    e->ip = 0;
    e->gpi = 0;
    if (dbg != 0) {
        print_cons();
    }
}

int CGPIOClient::reconnect(int entry) {
    ConEntry* e = find(static_cast<unsigned long>(entry));
    if (e == nullptr || e->ip == 0 || get_fd(entry) != -1) {
        return -1;
    }
    if (e->client == nullptr && join(*e)) {
        return e->client->get_fd();
    }
    const DottedQuad server(e->ip);
    if (dbg != 0) {
        printf("Reconnecting to %s\n", server.text);
    }
    if (connect_client(e->client, e->ip, e->port) == -1) {
        fprintf(stderr, "CGPIOClient Failed to connect to %s\n", server.text);
        return -1;
    }
    for (int k = 0; k < m_nCount; ++k) {
        if (m_pCons[k].client == e->client) {
            subscribe(*e->client, m_pCons[k].gpi);
        }
    }
    if (dbg != 0) {
        print_cons();
    }
    return e->client->get_fd();
}

char* CGPIOClient::receive(int entry, unsigned long* mask) {
    const ConEntry* e = find(static_cast<unsigned long>(entry));
    if (e == nullptr || e->client == nullptr) {
        return nullptr;
    }
    while (char* line = e->client->recv(0)) {
        if (dbg != 0) {
            printf("CGPIOClient < %s\n", line);
        }
        long gpi_number = 0;
        char* state = parse_state(line, gpi_number);
        if (state == nullptr) {
            continue;
        }
        const unsigned long concerned = followers(e->client, gpi_number);
        if (concerned == 0) {
            continue;
        }
        if (mask != nullptr) {
            *mask = concerned;
        }
        return state;
    }
    return nullptr;
}

void CGPIOClient::print_cons() {
    FILE* file = fopen(fname, "wt");
    if (file == nullptr) {
        fprintf(stderr, "CGPIOClient::print_cons can't create %s\n", fname);
        return;
    }
    fprintf(file, "Connection table:\r\n");
    for (int k = 0; k < m_nCount; ++k) {
        const ConEntry& e = m_pCons[k];
        const bool connected = e.client != nullptr && e.client->get_fd() != -1;
        fprintf(file, "%d %s/%d id=%lX %s\r\n", k, DottedQuad(e.ip).text, e.gpi,
                reinterpret_cast<unsigned long>(e.client),
                connected ? "connected" : "disconnected");
    }
    fclose(file);
}

CGPIOClient::ConEntry* CGPIOClient::find(unsigned long entry) {
    return entry < static_cast<unsigned long>(m_nCount) ? &m_pCons[entry] : nullptr;
}

// Null if memory is short.
CTQRClient* CGPIOClient::new_client() const {
    CTQRClient* const client = new (std::nothrow) CTQRClient;
    if (client != nullptr) {
        client->set_limits(m_limits);
    }
    return client;
}

CTQRClient* CGPIOClient::find_client(uint32_t ip, uint16_t port) {
    for (int k = 0; k < m_nCount; ++k) {
        const ConEntry& e = m_pCons[k];
        if (e.client != nullptr && e.ip == ip && e.port == port) {
            return e.client;
        }
    }
    return nullptr;
}

// Gives an entry that was opened without memory its client: that of another entry, or a new one.
// True if the client is already connected; the entry is subscribed then.
bool CGPIOClient::join(ConEntry& e) {
    e.client = find_client(e.ip, e.port);
    if (e.client == nullptr) {
        e.client = new_client();
        return false;
    }
    if (e.client->get_fd() == -1) {
        return false;
    }
    subscribe(*e.client, e.gpi);
    return true;
}

int CGPIOClient::count_users(const CTQRClient* client) {
    int users = 0;
    for (int k = 0; k < m_nCount; ++k) {
        users += m_pCons[k].client == client ? 1 : 0;
    }
    return users;
}

// The entries of one connection that follow its GPI gpi_number, counted from 1. It compares
// connections, not addresses: an empty entry has the address 0.0.0.0, which a server may have too.
unsigned long CGPIOClient::followers(const CTQRClient* client, long gpi_number) {
    unsigned long set = 0;
    for_each_entry(m_nUsed, [&](int k) {
        if (m_pCons[k].client == client && m_pCons[k].gpi + 1 == gpi_number) {
            set |= 1UL << k;
        }
    });
    return set;
}
