// The system calls of the daemon, and of the peers that use its client. They replace the C
// library's in every program that is linked with the world.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "tests/world/World.h"

namespace {

World& world() {
    return World::Get();
}

Socket& socket_of(int fd) {
    return world().sockets.at(fd);
}

Endpoint endpoint(const void* address) {
    sockaddr_in in = {};
    memcpy(&in, address, sizeof in);
    return {ntohl(in.sin_addr.s_addr), ntohs(in.sin_port)};
}

void store(const Endpoint& from, void* address) {
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(from.ip);
    in.sin_port = htons(from.port);
    memcpy(address, &in, sizeof in);
}

std::string bytes_of(const void* data, size_t size) {
    return {static_cast<const char*>(data), size};
}

// The arguments of a call, for the log; empty where there is no log.
template <class... T>
std::string asks(const T&... parts) {
    return world().is_calm ? std::string() : words(parts...);
}

// Logs the call and returns its result; keeps errno.
int done(Call call) {
    const int err = errno;
    const int result = static_cast<int>(call.result);
    if (world().running == nullptr) {
        world().Log(std::move(call));
    }
    errno = err;
    return result;
}

// Lets an attempt to connect take its time. Returns 0 or an error.
int attempt(const Listener* server) {
    struct Outcome {
        const char* fault;
        Micros time;
        int error;
    };
    const Outcome OUTCOMES[] = {{nullptr, 2 * MS, 0},
                                {"accepts late", 5 * SECOND, 0},
                                {"refuses", 0, ECONNREFUSED},
                                {"never accepts", 130 * SECOND, ETIMEDOUT},
                                {"unreachable", 3 * SECOND, EHOSTUNREACH}};
    World& w = world();
    const Listener::Answer answer = server == nullptr ? Listener::REFUSES : server->answer;
    const Outcome& outcome = OUTCOMES[answer];
    if (w.is_calm) {
        return outcome.error;
    }
    if (outcome.fault != nullptr) {
        w.Count(std::string("fault: ") + outcome.fault);
    }
    if (outcome.time != 0) {
        w.Wait(outcome.error == 0 ? w.random.Time(outcome.time) : outcome.time);
    }
    return outcome.fault == nullptr && server->answer != answer ? ECONNREFUSED : outcome.error;
}

std::string readable_of(const std::string& watched) {
    std::string ready;
    std::copy_if(watched.begin(), watched.end(), std::back_inserter(ready),
                 [](char fd) { return world().IsReadable(static_cast<unsigned char>(fd)); });
    return ready;
}

// The result of a call that reads.
int receive(Call call, bool fails, void* buffer) {
    call.result = fails ? -1 : static_cast<long>(call.got.size());
    memcpy(buffer, call.got.data(), call.got.size());
    return done(std::move(call));
}

// The daemon waits until one of these is readable.
void wait(const std::string& watched, Micros limit) {
    World& w = world();
    w.waits();
    // It may wake late: then more than one can be readable.
    if (w.Wait(limit, [&] { return !readable_of(watched).empty() || w.IsOver(); }) && !w.is_calm &&
        w.random.OneIn(3)) {
        w.Wait(w.random.Time(30 * MS));
    }
}

}  // namespace

// The C library names its parameters with reserved names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

// ---- time

extern "C" int gettimeofday(timeval* time, void* /*zone*/) noexcept {
    const Micros now = !World::Exists()             ? 0
                       : world().running != nullptr ? world().Now()
                                                    : world().Clock();
    time->tv_sec = static_cast<time_t>(now / SECOND);
    time->tv_usec = static_cast<suseconds_t>(now % SECOND);
    return 0;
}

extern "C" int usleep(useconds_t time) {
    world().Wait(static_cast<Micros>(time));
    return done({asks("usleep", time)});
}

// ---- start-up

extern "C" int daemon(int /*stay*/, int /*keep_open*/) noexcept {
    return done({"daemon ", world().Fails("daemon", 100, {ENOMEM, EAGAIN}) ? -1 : 0});
}

extern "C" FILE* fopen(const char* path, const char* mode) {
    if (strncmp(path, "/var/", 5) != 0) {
        const int flags = mode[0] == 'r' ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
        return fdopen(open(path, flags, 0666), mode);
    }
    const bool fails = world().Fails("fopen", 20, {EACCES, ENOSPC, EMFILE});
    done({asks("fopen", path, mode), fails ? -1 : 0});
    return fails ? nullptr : fmemopen(nullptr, 8192, "w");
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    ifreq* interface = va_arg(arguments, ifreq*);
    va_end(arguments);
    const Endpoint at = {world().device_ip, 0};
    store(at, &interface->ifr_addr);
    errno = EADDRNOTAVAIL;
    return done({asks("ioctl", fd, interface->ifr_name),
                 request != SIOCGIFADDR || at.ip == 0 ? -1 : 0, "", at});
}

// ---- sockets

extern "C" int socket(int /*domain*/, int type, int /*protocol*/) noexcept {
    const bool is_stream = type == SOCK_STREAM;
    const bool fails = world().Fails("socket", 2000, {EMFILE, ENFILE, ENOMEM, ENOBUFS});
    return done(
        {is_stream ? "socket stream " : "socket datagram ", fails ? -1 : world().Open(is_stream)});
}

extern "C" int bind(int fd, const sockaddr* address, socklen_t /*size*/) noexcept {
    const Endpoint at = endpoint(address);
    const bool fails = world().Fails("bind", 50, {EADDRINUSE, EADDRNOTAVAIL});
    socket_of(fd).port = fails ? 0 : at.port;
    return done({asks("bind", fd, at.Text()), fails ? -1 : 0});
}

extern "C" int setsockopt(int fd, int level, int option, const void* value,
                          socklen_t size) noexcept {
    static const std::map<std::pair<int, int>, const char*> OPTIONS = {
        {{SOL_SOCKET, SO_REUSEADDR}, "SO_REUSEADDR"},
        {{SOL_SOCKET, SO_KEEPALIVE}, "SO_KEEPALIVE"},
        {{IPPROTO_TCP, TCP_NODELAY}, "TCP_NODELAY"},
        {{IPPROTO_IP, IP_MULTICAST_IF}, "IP_MULTICAST_IF"},
        {{IPPROTO_IP, IP_ADD_MEMBERSHIP}, "IP_ADD_MEMBERSHIP"}};
    World& w = world();
    uint32_t numbers[2] = {};
    memcpy(numbers, value, std::min<size_t>(size, sizeof numbers));
    const bool is_join = level == IPPROTO_IP && option == IP_ADD_MEMBERSHIP;
    std::string data = std::to_string(numbers[0]);
    if (level == IPPROTO_IP) {
        const uint32_t about = ntohl(numbers[is_join ? 1 : 0]);
        const bool is_ours = w.device_ip != 0 && (about == 0 || about == w.device_ip);
        data = (is_join ? quad(ntohl(numbers[0])) + " " : "") + quad(about);
        errno = is_ours ? 0 : is_join ? ENODEV : EADDRNOTAVAIL;
        errno = is_join && is_ours && w.is_member ? EADDRINUSE : errno;
        w.is_member = w.is_member || (is_join && is_ours);
    } else if (!w.Fails("setsockopt", 500, {ENOMEM, ENOPROTOOPT})) {
        errno = 0;
    }
    return done({asks("setsockopt", fd, OPTIONS.at({level, option}), data), errno == 0 ? 0 : -1});
}

extern "C" int getsockopt(int /*fd*/, int /*level*/, int /*option*/, void* value,
                          socklen_t* /*size*/) noexcept {
    const int BUFFER = 212992;
    memcpy(value, &BUFFER, sizeof BUFFER);
    return 0;
}

extern "C" int connect(int fd, const sockaddr* address, socklen_t /*size*/) {
    World& w = world();
    const Endpoint to = endpoint(address);
    // A server at the loopback address serves all of 127.0.0.0/8, and 0.0.0.0.
    const bool is_ours = to.ip >> 24 == LOOPBACK >> 24 || to.ip == 0;
    const auto server = w.servers.find({is_ours ? LOOPBACK : to.ip, to.port});
    errno = attempt(server == w.servers.end() ? nullptr : server->second);
    std::shared_ptr<Stream> stream;
    if (errno == 0) {
        stream = std::make_shared<Stream>();
        stream->server = server->second;
        socket_of(fd).stream = stream;
        stream->server->Accept(stream);
    }
    return done({asks("connect", fd, to.Text()), stream != nullptr ? 0 : -1, "", to, stream});
}

extern "C" int shutdown(int fd, int /*how*/) noexcept {
    return done({asks("shutdown", fd)});
}

extern "C" int close(int fd) {
    if (!World::Exists() || world().sockets.count(fd) == 0) {
        return static_cast<int>(syscall(SYS_close, fd));
    }
    const Socket& socket = socket_of(fd);
    if (socket.stream != nullptr) {
        socket.stream->is_closed = true;
    }
    world().is_member = world().is_member && socket.port != REQUEST_PORT;
    world().sockets.erase(fd);
    return done({asks("close", fd)});
}

// ---- reading and writing

extern "C" ssize_t send(int fd, const void* data, size_t size, int /*flags*/) {
    World& w = world();
    const std::shared_ptr<Stream> stream = socket_of(fd).stream;
    const std::string bytes = bytes_of(data, size);
    w.Count("owed: lines");
    long result = static_cast<long>(size);
    if (w.Fails("send", 5000, {EINTR, ENOBUFS, ENOMEM})) {
        w.Count("lost: line, no memory for it");
        result = -1;
    } else if (w.is_calm) {
        stream->told += bytes;
    } else if (stream->is_left) {
        w.Count("lost: line, the connection had ended");
        w.After(MS, [stream] { stream->end = stream->end < 0 ? ECONNRESET : stream->end; });
        result = stream->end < 0 ? result : -1;
        errno = EPIPE;
    } else {
        w.After(50, [&w, stream, bytes] {
            if (!stream->is_left) {
                stream->told += bytes;
                stream->server->Hear(*stream);
            } else {
                w.Count("lost: line, the connection ended under way");
            }
        });
    }
    return done({asks("send", fd) + bytes, result});
}

extern "C" ssize_t recv(int fd, void* buffer, size_t room, int /*flags*/) {
    World& w = world();
    Stream& stream = *socket_of(fd).stream;
    size_t size = std::min(room, stream.arrived.size());
    if (size > 1 && !w.is_calm && w.random.OneIn(20)) {
        size = 1 + w.random.Below(static_cast<uint32_t>(size));
    }
    bool fails = w.Fails("recv", 20000, {EINTR, ENOMEM, ECONNRESET});
    if (!fails && stream.arrived.empty() && stream.end > 0) {
        fails = true;
        errno = stream.end;
    }
    Call call = {asks("recv", fd, room)};
    if (!fails) {
        call.got = stream.arrived.substr(0, size);
        stream.arrived.erase(0, size);
    }
    return receive(std::move(call), fails, buffer);
}

extern "C" ssize_t sendto(int fd, const void* data, size_t size, int /*flags*/,
                          const sockaddr* address, socklen_t /*address_size*/) {
    World& w = world();
    const Endpoint to = endpoint(address);
    const std::string bytes = bytes_of(data, size);
    Socket& socket = socket_of(fd);
    socket.port = socket.port != 0 ? socket.port : static_cast<uint16_t>(32768 + fd);
    long result = static_cast<long>(size);
    if (w.running != nullptr) {
        w.running->Sends(bytes);
        w.Send({w.running->address, socket.port}, to, bytes);
        return result;
    }
    w.Count(to.port == ANSWER_PORT ? "owed: reports and replies" : "owed: acknowledgements");
    if (w.device_ip == 0) {
        w.Count("lost: datagram, no interface");
        result = -1;
        errno = ENETUNREACH;
    } else if (w.Fails("sendto", 3000, {ENOBUFS, EAGAIN, EINTR, EPERM})) {
        w.Count("lost: datagram, no room for it");
        result = -1;
    } else if (to.ip != GROUP || w.is_calm) {
        w.Send({w.device_ip, socket.port}, to, bytes);
    }
    return done({asks("sendto", fd, to.Text()) + bytes, result});
}

extern "C" ssize_t recvfrom(int fd, void* buffer, size_t room, int /*flags*/, sockaddr* from,
                            socklen_t* /*from_size*/) {
    std::list<Datagram>& waiting = socket_of(fd).datagrams;
    const bool fails = world().Fails("recvfrom", 20000, {EINTR, ENOMEM, ECONNREFUSED});
    Call call = {asks("recvfrom", fd, room), 0, "", waiting.front().from};
    if (!fails) {
        call.got = std::move(waiting.front().bytes);
        call.got.resize(std::min(room, call.got.size()));
        store(call.from, from);
        waiting.pop_front();
    }
    return receive(std::move(call), fails, buffer);
}

extern "C" int select(int count, fd_set* readable, fd_set* /*writable*/, fd_set* /*exceptional*/,
                      timeval* limit) {
    World& w = world();
    std::string watched;
    for (int fd = 0; fd < count; ++fd) {
        if (FD_ISSET(fd, readable)) {
            watched += static_cast<char>(fd);
        }
    }
    const Micros time = limit->tv_sec * SECOND + limit->tv_usec;
    if (w.running != nullptr) {
        return w.running->Wait(watched[0], time) ? 1 : 0;
    }
    const bool is_wait = time != 0;
    Call call = {is_wait ? asks("select", time) + watched : "poll " + watched};
    if (is_wait) {
        w.Log(call);
        wait(watched, time);
    }
    call.got = readable_of(watched);
    call.result = static_cast<long>(call.got.size());
    if (is_wait) {
        const bool is_bus = call.result == 1 && !socket_of(call.got[0] & 255).is_stream;
        w.memory_left = is_bus && !w.is_calm && w.random.OneIn(500) ? w.random.Below(6) : -1;
    }
    if (w.Fails(is_wait ? "select" : "select without waiting", is_wait ? 40000 : 100000,
                {EINTR, ENOMEM})) {
        call.got.clear();
        call.result = -1;
    }
    FD_ZERO(readable);
    for (const char fd : call.got) {
        FD_SET(static_cast<unsigned char>(fd), readable);
    }
    return done(std::move(call));
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
