#include "tests/world/World.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

World* the_world = nullptr;

std::string readable(const std::string& bytes) {
    std::string text;
    for (const char c : bytes.substr(0, 160)) {
        char hex[8];
        snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(c));
        text += c >= ' ' && c <= '~' ? std::string(1, c) : c == '\n' ? "\\n" : hex;
    }
    return text;
}

}  // namespace

std::string quad(uint32_t ip) {
    return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) + "." +
           std::to_string(ip >> 8 & 255) + "." + std::to_string(ip & 255);
}

std::string big_endian(uint64_t number, int size) {
    std::string bytes;
    while (size-- > 0) {
        bytes += static_cast<char>(number >> 8 * size & 255);
    }
    return bytes;
}

uint32_t Random::Below(uint32_t limit) {
    m_State += 0x9E3779B97F4A7C15ULL;
    uint64_t z = m_State;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return static_cast<uint32_t>(((z ^ (z >> 31)) >> 32) * limit >> 32);
}

World::World(uint64_t seed, Micros length) : random(seed), m_Length(length), m_Seed(seed) {
    // The present, or shortly before the clock passes 2^31 or 2^32 seconds.
    clock_offset = random.Of({20782, 20782, 20782, 24854, 49709}) * DAY;
    clock_offset += random.Time(SECOND);
    device_ip = random.OneIn(10) ? 0 : 0x0A000001;
    the_world = this;
}

World::~World() {
    the_world = nullptr;
}

World& World::Get() {
    return *the_world;
}

bool World::Exists() {
    return the_world != nullptr;
}

void World::After(Micros delay, std::function<void()> happens) {
    m_Future.push({m_Now + delay, ++m_Happened, std::move(happens)});
}

bool World::Wait(Micros time, const std::function<bool()>& condition) {
    const Micros until = m_Now + time;
    while (!condition()) {
        if (m_Future.empty() || m_Future.top().at > until) {
            m_Now = until;
            return false;
        }
        m_Now = m_Future.top().at;
        const std::function<void()> happens = m_Future.top().happens;
        m_Future.pop();
        happens();
    }
    return true;
}

void World::OneOf(std::initializer_list<Deed> deeds) {
    uint32_t all = 0;
    for (const Deed& deed : deeds) {
        all += deed.weight;
    }
    const Deed* deed = deeds.begin();
    for (uint32_t left = random.Below(all); left >= deed->weight; ++deed) {
        left -= deed->weight;
    }
    if (deed->event != nullptr) {
        Event(deed->event);
    }
    deed->happens();
}

void World::Event(const std::string& what) {
    ++events;
    Count("event: " + what);
    Trace(what);
    m_Recent.push_back(std::to_string(m_Now / SECOND) + " s: " + what);
    if (m_Recent.size() > 12) {
        m_Recent.pop_front();
    }
    if (events % 8192 == 0) {
        progress();
    }
}

void World::Fault(const std::string& what) {
    ++faults;
    Count("fault: " + what);
}

bool World::Fails(const char* call, uint32_t one_in, std::initializer_list<int> errors) {
    if (running != nullptr || is_calm || IsOver() || !random.OneIn(one_in)) {
        return false;
    }
    errno = random.Of(errors);
    Fault(std::string(call) + ": " + strerror(errno));
    return true;
}

void World::Trace(const std::string& bytes) {
    for (const char c : bytes) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    hash = (hash ^ static_cast<uint64_t>(m_Now)) * 1099511628211ULL;
}

void World::Log(Call call) {
    if (is_calm) {
        return;
    }
    if (log.size() > 1000000) {
        Differ("the next wait", "a million calls without one");
    }
    call.clock = Clock();
    Trace(call.asks + std::to_string(call.result) + call.got);
    log.push_back(std::move(call));
}

void World::Differ(const std::string& expected, const std::string& found) {
    fprintf(report, "\nDIFFERENCE at event %ld, %lld s\n  owed:  %s\n  found: %s\n", events,
            static_cast<long long>(m_Now / SECOND), readable(expected).c_str(),
            readable(found).c_str());
    fputs("The last events:\n", report);
    for (const std::string& event : m_Recent) {
        fprintf(report, "  %s\n", event.c_str());
    }
    fputs("The last calls of the daemon:\n", report);
    for (size_t i = log.size() > 16 ? log.size() - 16 : 0; i < log.size(); ++i) {
        fprintf(report, "  %s gave %ld %s\n", readable(log[i].asks).c_str(), log[i].result,
                readable(log[i].got).c_str());
    }
    fprintf(report, "To repeat: scripts/simulate --seed %llu --days %lld\n",
            static_cast<unsigned long long>(m_Seed), static_cast<long long>(m_Now / DAY) + 1);
    fflush(report);
    _exit(1);
}

// The lowest free number, as the system would give it, above those that the process really has.
int World::Open(bool is_stream) {
    int fd = 64;
    while (sockets.count(fd) != 0) {
        ++fd;
    }
    sockets[fd] = {is_stream, running};
    return fd;
}

bool World::IsReadable(int fd) const {
    const auto found = sockets.find(fd);
    if (found == sockets.end()) {
        return false;
    }
    const Socket& socket = found->second;
    const Stream* const stream = socket.stream.get();
    return !socket.datagrams.empty() ||
           (stream != nullptr && (!stream->arrived.empty() || stream->end >= 0));
}

// Loses, repeats, delays and reorders datagrams.
void World::Send(const Endpoint& from, const Endpoint& to, const std::string& bytes) {
    if (is_calm) {
        Arrive(from, to, bytes);
        return;
    }
    int copies = 1;
    if (m_Now < cut_until || random.OneIn(50)) {
        copies = 0;
        Fault(m_Now < cut_until ? "datagram into a cut cable" : "datagram lost");
    } else if (random.OneIn(50)) {
        copies = 2;
        Fault("datagram doubled");
    }
    while (copies-- > 0) {
        Micros delay = 100 + random.Time(2 * MS);
        if (random.OneIn(50)) {
            delay += random.Time(300 * MS);
            Fault("datagram late");
        }
        After(delay, [this, from, to, bytes] { Arrive(from, to, bytes); });
    }
}

void World::Arrive(const Endpoint& from, const Endpoint& to, const std::string& bytes) {
    const size_t QUEUE = 256;
    for (const auto& [at, receive] : receivers) {
        if (at.port == to.port && (at.ip == 0 || at.ip == to.ip || to.ip == GROUP)) {
            receive(from, bytes);
        }
    }
    for (auto& [fd, socket] : sockets) {
        Peer* const owner = socket.owner;
        const bool is_there = owner == nullptr ? to.ip == device_ip || (to.ip == GROUP && is_member)
                                               : to.ip == owner->address;
        if (socket.is_stream || socket.port != to.port || !is_there) {
            continue;
        }
        if (socket.datagrams.size() >= QUEUE) {
            Count("lost: datagram to a full socket");
            return;
        }
        socket.datagrams.push_back({from, bytes});
        if (owner != nullptr) {
            owner->Arrived(from, bytes);
        }
        return;
    }
}
