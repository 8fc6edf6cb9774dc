// A world for one daemon: time, a network and what goes wrong there, all from one seed. The
// daemon's own objects live in it; the system calls that they make are the world's (calls.cpp), and
// waiting costs nothing. The same seed makes the same world on every platform.
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

// Texts and numbers with a blank behind each.
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

// Numbers that follow from a seed. Take one at a time: the order in which a compiler evaluates the
// operands of one expression is its own.
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

// Where an output is driven from, in the words of the protocol.
struct Source {
    enum Kind { NONE, REMOTE, BUS };
    Kind kind = NONE;
    uint32_t address = 0;  // BUS
    Endpoint server{};     // REMOTE; of NONE the address 255.255.255.255 when it could not be read
    int gpi = 0;           // REMOTE, from 1

    bool operator==(const Source& o) const {
        return kind == o.kind && address == o.address && server == o.server && gpi == o.gpi;
    }
};

// A control line and what it means, as whoever wrote it knows.
struct Line {
    enum Kind { OTHER, CFG, GPI, GPO, SET };
    Kind kind = OTHER;
    std::string text{};
    int number = 0;        // CFG, GPI, GPO
    Source source{};       // CFG
    std::string state{};   // GPI, GPO: what follows the number
    uint32_t address = 0;  // SET
};

struct Stream;

// Who can be connected to.
class Listener {
public:
    enum Answer { ACCEPTS, LATE, REFUSES, SILENT, UNREACHABLE };
    Answer answer = ACCEPTS;  // what becomes of an attempt to connect

    virtual ~Listener() = default;
    virtual void Accept(const std::shared_ptr<Stream>& stream) = 0;
    // Told after bytes have come.
    virtual void Hear(Stream& /*stream*/) {}
};

// A connection as the daemon's end sees it.
struct Stream {
    Listener* server = nullptr;
    std::string told{};        // to the server, and not yet taken there
    std::string arrived{};     // and not yet read
    std::list<Line> lines{};  // what the server has written and the daemon not yet taken
    int end = -1;              // behind what arrived: 0 the end, an error, -1 neither
    Micros last = 0;           // when the last of what was written arrives
    bool is_closed = false;    // by the daemon
    bool is_left = false;      // by the server
};

// One system call of the daemon: what it asked for and what it got.
struct Call {
    std::string asks{};  // its name, "poll" for a select that does not wait, and what matters of it
    long result = 0;
    std::string got{};  // what was received, the sockets that are readable
    Endpoint from{};
    std::shared_ptr<Stream> stream{};  // of connect
    Micros clock = 0;                  // the time of day when it ended
};

struct Datagram {
    Endpoint from;
    std::string bytes;
};

struct Socket {
    bool is_stream = false;
    class Writer* writer = nullptr;  // whose it is, null for the daemon's
    uint16_t port = 0;
    std::shared_ptr<Stream> stream{};
    std::list<Datagram> datagrams{};
};

// Something that may happen: how often of all, its name if it is an event of its own, and what.
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
    static World& Get();   // the one in which we are
    static bool Exists();  // not before main

    // ---- Time.
    Micros Now() const { return m_Now; }
    Micros Clock() const { return m_Now + clock_offset; }  // as the device's clock shows it
    void After(Micros delay, std::function<void()> happens);
    // Lets time pass until the condition holds or the time is over. Whether it holds.
    bool Wait(
        Micros time, const std::function<bool()>& condition = [] { return false; });
    bool IsOver() const { return m_Now >= m_Length; }
    void OneOf(std::initializer_list<Deed> deeds);

    // ---- What is counted, and what is said when the daemon does what it must not.
    void Count(std::string_view what, long by = 1) {
        if (!is_calm) {
            counts[std::string(what)] += by;
        }
    }
    void Event(const std::string& what);
    void Fault(const std::string& what);
    // Whether this call fails, one in so many, with one of these errors (in errno).
    bool Fails(const char* call, uint32_t one_in, std::initializer_list<int> errors);
    void Log(Call call);
    [[noreturn]] void Differ(const std::string& expected, const std::string& found);

    // ---- Sockets and the network.
    int Open(bool is_stream);
    bool IsReadable(int fd) const;
    void Send(const Endpoint& from, const Endpoint& to, const std::string& bytes);

    bool is_calm = false;  // nothing fails and nothing takes time by itself
    Random random;
    Micros clock_offset;
    uint32_t device_ip;               // 0: the interface has none
    bool is_member = false;           // of the group
    Micros cut_until = 0;             // until then nothing passes
    long memory_left = -1;            // allocations until one fails, -1 for no limit
    class Writer* running = nullptr;  // who makes calls now, null for the daemon
    std::map<int, Socket> sockets;
    std::map<Endpoint, Listener*> servers;
    std::map<uint16_t, std::vector<std::string>*> taps;  // where else datagrams arrive, by port
    std::vector<Call> log;                               // of the daemon, since the last check
    std::map<std::string, long> counts;
    uint64_t hash = 14695981039346656037ULL;
    long events = 0;
    long faults = 0;
    std::function<void()> progress = [] {};
    std::function<void()> waits = [] {};  // when the daemon is about to wait for its peers
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
