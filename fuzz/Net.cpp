#include "fuzz/Net.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <limits>
#include <utility>

#include "fuzz/Check.h"

namespace {

uint16_t any_port() {
    static unsigned int count = 0;
    return static_cast<uint16_t>(50000 + count++ % 10000);
}

void reset(const std::shared_ptr<Stream>& stream) {
    stream->end = ECONNRESET;
}

}  // namespace

// Never deleted: static objects still close their sockets at exit.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    World* const world = new World(0, std::numeric_limits<Micros>::max());
    world->is_calm = true;
    world->device_ip = LOOPBACK;
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

bool is_readable(int fd) {
    return World::Get().IsReadable(fd);
}

void await_readable(int fd) {
    CHECK(is_readable(fd));
}

void await_bytes(int fd, size_t size) {
    CHECK(World::Get().sockets.at(fd).stream->arrived.size() >= size);
}

void Clock::Advance(long seconds, long microseconds) {
    World::Get().clock_offset += seconds * SECOND + microseconds;
}

TcpPeer::TcpPeer(uint16_t port) : m_Port(port != 0 ? port : any_port()) {
    World::Get().servers[{LOOPBACK, m_Port}] = this;
}

TcpPeer::~TcpPeer() {
    Reset();
    World::Get().servers.erase({LOOPBACK, m_Port});
}

void TcpPeer::Accept(int client) {
    AcceptAll();
    const std::shared_ptr<Stream> wanted = World::Get().sockets.at(client).stream;
    const auto found = std::find(m_Streams.begin(), m_Streams.end(), wanted);
    CHECK(found != m_Streams.end());
    m_Streams.erase(found);
    std::for_each(m_Streams.begin(), m_Streams.end(), reset);
    m_Streams = {wanted};
}

void TcpPeer::AcceptAll() {
    m_Streams.insert(m_Streams.end(), m_Waiting.begin(), m_Waiting.end());
    m_Waiting.clear();
}

void TcpPeer::Send(const std::string& bytes) {
    for (const std::shared_ptr<Stream>& stream : m_Streams) {
        stream->arrived += bytes;
    }
}

std::string TcpPeer::Take(size_t wanted) {
    std::string taken;
    for (const std::shared_ptr<Stream>& stream : m_Streams) {
        taken += std::exchange(stream->told, "");
    }
    CHECK(taken.size() >= wanted);
    return taken;
}

void TcpPeer::Reset() {
    AcceptAll();
    std::for_each(m_Streams.begin(), m_Streams.end(), reset);
    m_Streams.clear();
}

UdpPeer::UdpPeer(uint16_t port) : m_Port(port != 0 ? port : any_port()) {
    World::Get().receivers[{0, m_Port}] = [this](const Endpoint&, const std::string& bytes) {
        m_Arrived.push_back(bytes);
    };
}

UdpPeer::~UdpPeer() {
    World::Get().receivers.erase({0, m_Port});
}

void UdpPeer::Send(const std::string& datagram, uint16_t port) {
    World::Get().Send({LOOPBACK, m_Port}, {LOOPBACK, port}, datagram);
}

std::vector<std::string> UdpPeer::Take(size_t wanted) {
    CHECK(m_Arrived.size() >= wanted);
    return std::exchange(m_Arrived, {});
}
