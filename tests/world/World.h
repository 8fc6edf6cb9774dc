// A simulated world for one daemon: time, a network and its faults, all derived from one seed. The
// daemon's own objects run in it; their system calls are replaced (calls.cpp), and waiting takes no
// real time. The same seed gives the same run on every platform.
#pragma once

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

using Micros = int64_t;
const Micros MS = 1000;
const Micros SECOND = 1000000;
const Micros DAY = 86400 * SECOND;

const uint32_t GROUP = 0xEFC0FF04;  // 239.192.255.4
const uint16_t REQUEST_PORT = 2060;
const uint16_t ANSWER_PORT = 2055;
const uint32_t LOOPBACK = 0x7F000001;
const int CHANNELS = 32;

std::string quad(uint32_t ip);
std::string big_endian(uint64_t number, int size);

// The texts and numbers, each followed by a blank.
template <class... T>
std::string words(const T&... parts) {
    std::string text;
    const auto add = [&text](const auto& part) {
        if constexpr (std::is_integral_v<std::decay_t<decltype(part)>>) {
            text += std::to_string(part) + " ";
        } else {
            (text += part) += ' ';
        }
    };
    (add(parts), ...);
    return text;
}

// Pseudo-random numbers. Draw at most one per expression: the order of evaluation is unspecified.
class Random {
public:
    explicit Random(uint64_t seed) : m_State(seed) {}
    uint32_t Below(uint32_t limit);
    bool OneIn(uint32_t n) { return Below(n) == 0; }
    Micros Time(Micros limit) { return Below(static_cast<uint32_t>(limit)); }
    template <class T>
    T Of(std::initializer_list<T> choice) {
        return choice.begin()[Below(static_cast<uint32_t>(choice.size()))];
    }

private:
    uint64_t m_State;
};

struct Endpoint {
    uint32_t ip = 0;  // host byte order
    uint16_t port = 0;

    bool operator==(const Endpoint& o) const { return ip == o.ip && port == o.port; }
    bool operator<(const Endpoint& o) const { return ip != o.ip ? ip < o.ip : port < o.port; }
    std::string Text() const { return quad(ip) + ":" + std::to_string(port); }
};

// What drives an output.
struct Source {
    enum Kind { NONE, REMOTE, BUS };
    Kind kind = NONE;
    uint32_t address = 0;  // BUS
    Endpoint server{};     // REMOTE; with NONE, 255.255.255.255 for an address that can't be parsed
    int gpi = 0;           // REMOTE, from 1

    bool operator==(const Source& o) const {
        return kind == o.kind && address == o.address && server == o.server && gpi == o.gpi;
    }
};

// A control line, and its meaning as its writer intends it.
struct Line {
    enum Kind { OTHER, CFG, GPI, GPO, SET };
    Kind kind = OTHER;
    std::string text{};
    int number = 0;        // CFG, GPI, GPO
    Source source{};       // CFG
    std::string state{};   // GPI, GPO: the rest of the line
    uint32_t address = 0;  // SET
};

struct Stream;

// A server that accepts connections.
class Listener {
public:
    enum Answer { ACCEPTS, LATE, REFUSES, SILENT, UNREACHABLE };
    Answer answer = ACCEPTS;  // the result of an attempt to connect

    virtual ~Listener() = default;
    virtual void Accept(const std::shared_ptr<Stream>& stream) = 0;
    // Called when bytes have arrived.
    virtual void Hear(Stream& /*stream*/) {}
};

// A connection, seen from the daemon's end.
struct Stream {
    Listener* server = nullptr;
    std::string told{};       // sent to the server, not yet processed there
    std::string arrived{};    // not yet read by the daemon
    std::list<Line> lines{};  // written by the server, not yet handled by the daemon
    int end = -1;             // after what arrived: 0 for the end, an error, -1 for neither
    Micros last = 0;          // when the last written byte arrives
    bool is_closed = false;   // by the daemon
    bool is_left = false;     // by the server
};

// One system call of the daemon: its arguments and its result.
struct Call {
    std::string asks{};  // its name ("poll" for a select() that does not wait) and its arguments
    long result = 0;
    std::string got{};  // the bytes received, or the readable sockets
    Endpoint from{};
    std::shared_ptr<Stream> stream{};  // of connect
    Micros clock = 0;                  // the time of day when it returned
};

struct Datagram {
    Endpoint from;
    std::string bytes;
};

// A program on the bus that runs beside the daemon, with system calls of its own.
class Peer {
public:
    explicit Peer(uint32_t ip) : address(ip) {}
    virtual ~Peer() = default;
    virtual void Sends(const std::string& bytes) = 0;
    virtual void Arrived(const Endpoint& from, const std::string& bytes) = 0;  // in its socket
    // Runs others until the socket is readable, at most that long. Returns whether it is.
    virtual bool Wait(int fd, Micros limit) = 0;

    const uint32_t address;
};

struct Socket {
    bool is_stream = false;
    Peer* owner = nullptr;  // null for the daemon
    uint16_t port = 0;
    std::shared_ptr<Stream> stream{};
    std::list<Datagram> datagrams{};
};

// Something that may happen: its relative frequency, its name if it counts as an event, its effect.
struct Deed {
    uint32_t weight;
    const char* event;
    std::function<void()> happens;
};

class World {
public:
    World(uint64_t seed, Micros length);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    static World& Get();   // the only one
    static bool Exists();  // false before main()

    // ---- Time.
    Micros Now() const { return m_Now; }
    Micros Clock() const { return m_Now + clock_offset; }  // the device's time of day
    void After(Micros delay, std::function<void()> happens);
    // Lets time pass until the condition holds, or at most that long. Returns whether it holds.
    bool Wait(
        Micros time, const std::function<bool()>& condition = [] { return false; });
    bool IsOver() const { return m_Now >= m_Length; }
    void OneOf(std::initializer_list<Deed> deeds);

    // ---- Counts, the log, and the report of a difference.
    void Count(std::string_view what, long by = 1) {
        if (!is_calm) {
            counts[std::string(what)] += by;
        }
    }
    void Event(const std::string& what);
    void Fault(const std::string& what);
    // Whether this call fails; if so, with one of these errors in errno.
    bool Fails(const char* call, uint32_t one_in, std::initializer_list<int> errors);
    void Log(Call call);
    [[noreturn]] void Differ(const std::string& expected, const std::string& found);

    // ---- Sockets and the network.
    int Open(bool is_stream);
    bool IsReadable(int fd) const;
    void Send(const Endpoint& from, const Endpoint& to, const std::string& bytes);

    bool is_calm = false;  // no faults, no delays, no log
    Random random;
    Micros clock_offset;
    uint32_t device_ip;       // 0: the interface has none
    bool is_member = false;   // of the multicast group
    Micros cut_until = 0;     // the cable is cut until then
    long memory_left = -1;    // allocations until one fails, -1 for no limit
    Peer* running = nullptr;  // the one that is running, null for the daemon
    std::map<int, Socket> sockets;
    std::map<Endpoint, Listener*> servers;
    // Receivers of datagrams without a socket, by address (0: any) and port; all are in the group.
    std::map<Endpoint, std::function<void(const Endpoint& from, const std::string& bytes)>>
        receivers;
    std::vector<Call> log;  // the daemon's calls since the last check
    std::map<std::string, long> counts;
    uint64_t hash = 14695981039346656037ULL;
    long events = 0;
    long faults = 0;
    std::function<void()> progress = [] {};
    std::function<void()> waits = [] {};  // called when the daemon is about to wait
    FILE* report = stderr;

private:
    struct Happening {
        Micros at;
        uint64_t number;
        std::function<void()> happens;
        bool operator<(const Happening& o) const {
            return at != o.at ? at > o.at : number > o.number;
        }
    };
    void Trace(const std::string& bytes);
    void Arrive(const Endpoint& from, const Endpoint& to, const std::string& bytes);

    Micros m_Now = 0;
    Micros m_Length;
    uint64_t m_Seed;
    uint64_t m_Happened = 0;
    std::priority_queue<Happening> m_Future;
    std::deque<std::string> m_Recent;
};
