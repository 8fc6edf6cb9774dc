// The system calls of the daemon, and of those peers that are made of its client: in place of the C
// library's, for whatever is linked with the world.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tests/world/World.h"
#include "tests/world/Writer.h"

namespace {

World& world() {
    return World::Get();
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

int fail(int error) {
    errno = error;
    return -1;
}

// What a call of the daemon's that only asks gives, -1 with the error of errno.
int log_call(const std::string& kind, int fd, long number, int result, const std::string& data = "",
             Endpoint peer = {}) {
    const int err = errno;
    if (world().running == nullptr) {
        Call call;
        call.kind = kind;
        call.fd = fd;
        call.number = number;
        call.data = data;
        call.peer = peer;
        call.result = result;
        world().Log(std::move(call));
    }
    errno = err;
    return result;
}

Socket& socket_of(int fd) {
    return world().sockets.at(fd);
}

std::string bytes_of(const void* data, size_t size) {
    return {static_cast<const char*>(data), size};
}

// Until when an attempt to connect lasts, and what becomes of it: 0 or an error.
int attempt(Listener* server) {
    const Listener::Answer answer = server == nullptr ? Listener::REFUSES : server->answer;
    World& w = world();
    if (w.is_calm) {
        return answer == Listener::ACCEPTS ? 0 : ECONNREFUSED;
    }
    switch (answer) {
        case Listener::ACCEPTS:
            w.Wait(w.Now() + w.random.Time(2 * MS), [] { return false; });
            return server->answer == Listener::ACCEPTS ? 0 : ECONNREFUSED;
        case Listener::LATE:
            w.Count("fault: accepts late");
            w.Wait(w.Now() + w.random.Time(5 * SECOND), [] { return false; });
            return 0;
        case Listener::SILENT:
            w.Count("fault: never accepts");
            w.Wait(w.Now() + 130 * SECOND, [] { return false; });
            return ETIMEDOUT;
        case Listener::UNREACHABLE:
            w.Count("fault: unreachable");
            w.Wait(w.Now() + 3 * SECOND, [] { return false; });
            return EHOSTUNREACH;
        default:
            w.Count("fault: refuses");
            return ECONNREFUSED;
    }
}

std::string readable_of(const std::string& watched) {
    std::string ready;
    for (const char fd : watched) {
        if (world().IsReadable(static_cast<unsigned char>(fd))) {
            ready += fd;
        }
    }
    return ready;
}

}  // namespace

// The system's names of the parameters are not for us.
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
    world().Wait(world().Now() + static_cast<Micros>(time), [] { return false; });
    return log_call("usleep", -1, static_cast<long>(time), 0);
}

// ---- start-up

extern "C" int daemon(int /*stay*/, int /*keep_open*/) noexcept {
    return log_call("daemon", -1, 0, world().Fails("daemon", 100, {ENOMEM, EAGAIN}) ? -1 : 0);
}

extern "C" FILE* fopen(const char* path, const char* mode) {
    if (strncmp(path, "/var/", 5) != 0) {
        const int flags = mode[0] == 'r' ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
        return fdopen(open(path, flags, 0666), mode);
    }
    const bool fails = world().Fails("fopen", 20, {EACCES, ENOSPC, EMFILE});
    log_call("fopen", -1, 0, fails ? -1 : 0, path + std::string(" ") + mode);
    return fails ? nullptr : fmemopen(nullptr, 8192, "w");
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    ifreq* interface = va_arg(arguments, ifreq*);
    va_end(arguments);
    const uint32_t address = world().device_ip;
    const bool fails = request != SIOCGIFADDR || address == 0;
    store({address, 0}, &interface->ifr_addr);
    errno = EADDRNOTAVAIL;
    log_call("ioctl", fd, 0, fails ? -1 : 0, interface->ifr_name);
    world().log.back().from.ip = address;
    return fails ? -1 : 0;
}

// ---- sockets

extern "C" int socket(int /*domain*/, int type, int /*protocol*/) noexcept {
    const bool fails = world().Fails("socket", 2000, {EMFILE, ENFILE, ENOMEM, ENOBUFS});
    return log_call("socket", -1, type, fails ? -1 : world().Open(type == SOCK_STREAM));
}

extern "C" int bind(int fd, const sockaddr* address, socklen_t /*size*/) noexcept {
    const Endpoint at = endpoint(address);
    const bool fails = world().Fails("bind", 50, {EADDRINUSE, EADDRNOTAVAIL});
    socket_of(fd).port = fails ? 0 : at.port;
    return log_call("bind", fd, 0, fails ? -1 : 0, "", at);
}

extern "C" int setsockopt(int fd, int level, int option, const void* value,
                          socklen_t size) noexcept {
    World& w = world();
    uint32_t numbers[2] = {};
    memcpy(numbers, value, std::min<size_t>(size, sizeof numbers));
    Endpoint about;
    std::string data;
    int error = 0;
    if (level == IPPROTO_IP) {
        about.ip = ntohl(numbers[option == IP_ADD_MEMBERSHIP ? 1 : 0]);
        data = option == IP_ADD_MEMBERSHIP ? quad(ntohl(numbers[0])) : "";
        const bool is_ours = w.device_ip != 0 && (about.ip == 0 || about.ip == w.device_ip);
        error = is_ours ? 0 : option == IP_ADD_MEMBERSHIP ? ENODEV : EADDRNOTAVAIL;
        if (option == IP_ADD_MEMBERSHIP && is_ours) {
            error = w.is_member ? EADDRINUSE : 0;
            w.is_member = true;
        }
    } else {
        data = std::to_string(numbers[0]);
        socket_of(fd).is_kept_alive |= level == SOL_SOCKET && option == SO_KEEPALIVE;
        error = w.Fails("setsockopt", 500, {ENOMEM, ENOPROTOOPT}) ? errno : 0;
    }
    errno = error;
    return log_call("setsockopt", fd, level << 16 | option, error == 0 ? 0 : -1, data, about);
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
    // One at the loopback address serves all of these.
    const bool is_ours = to.ip >> 24 == LOOPBACK >> 24 || to.ip == 0;
    const auto server = w.servers.find({is_ours ? LOOPBACK : to.ip, to.port});
    const int error = attempt(server == w.servers.end() ? nullptr : server->second);
    std::shared_ptr<Stream> stream;
    if (error == 0) {
        stream = std::make_shared<Stream>();
        stream->server = server->second;
        socket_of(fd).stream = stream;
        server->second->Accept(stream);
    }
    log_call("connect", fd, 0, error == 0 ? 0 : -1, "", to);
    w.log.back().stream = stream;
    errno = error;
    return error == 0 ? 0 : -1;
}

extern "C" int shutdown(int fd, int /*how*/) noexcept {
    return log_call("shutdown", fd, 0, 0);
}

extern "C" int close(int fd) {
    if (!World::Exists() || world().sockets.count(fd) == 0) {
        return static_cast<int>(syscall(SYS_close, fd));
    }
    World& w = world();
    const auto found = w.sockets.find(fd);
    if (found->second.stream != nullptr) {
        found->second.stream->is_closed = true;
    }
    w.is_member = w.is_member && found->second.port != REQUEST_PORT;
    w.sockets.erase(found);
    return log_call("close", fd, 0, 0);
}

// ---- reading and writing

extern "C" ssize_t send(int fd, const void* data, size_t size, int /*flags*/) {
    World& w = world();
    const std::shared_ptr<Stream> stream = socket_of(fd).stream;
    const std::string bytes = bytes_of(data, size);
    w.Count("owed: lines");
    int result = static_cast<int>(size);
    if (w.Fails("send", 5000, {EINTR, ENOBUFS, ENOMEM})) {
        w.Count("lost: line, no memory for it");
        result = -1;
    } else if (w.is_calm) {
        stream->told += bytes;
    } else if (stream->is_left) {
        w.Count("lost: line, the connection had ended");
        w.After(MS, [stream] { stream->end = stream->end < 0 ? ECONNRESET : stream->end; });
        result = stream->end < 0 ? result : fail(EPIPE);
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
    return log_call("send", fd, 0, result, bytes);
}

extern "C" ssize_t recv(int fd, void* buffer, size_t room, int /*flags*/) {
    World& w = world();
    Stream& stream = *socket_of(fd).stream;
    Call call;
    call.kind = "recv";
    call.fd = fd;
    call.number = static_cast<long>(room);
    size_t size = std::min(room, stream.arrived.size());
    if (size > 1 && !w.is_calm && w.random.OneIn(20)) {
        size = 1 + w.random.Below(static_cast<uint32_t>(size));
    }
    if (w.Fails("recv", 20000, {EINTR, ENOMEM, ECONNRESET})) {
        call.result = -1;
    } else if (stream.arrived.empty() && stream.end > 0) {
        call.result = fail(stream.end);
    } else {
        call.got = stream.arrived.substr(0, size);
        call.result = static_cast<long>(size);
        memcpy(buffer, call.got.data(), size);
        stream.arrived.erase(0, size);
    }
    const int err = errno;
    const ssize_t result = w.Log(std::move(call)).result;
    errno = err;
    return result;
}

extern "C" ssize_t sendto(int fd, const void* data, size_t size, int /*flags*/,
                          const sockaddr* address, socklen_t /*address_size*/) {
    World& w = world();
    const Endpoint to = endpoint(address);
    const std::string bytes = bytes_of(data, size);
    Socket& socket = socket_of(fd);
    socket.port = socket.port != 0 ? socket.port : static_cast<uint16_t>(32768 + fd);
    if (w.running != nullptr) {
        w.running->Attempted(bytes);
        w.Send({w.running->address, socket.port}, to, bytes);
        return static_cast<ssize_t>(size);
    }
    w.Count(to.port == ANSWER_PORT ? "owed: reports and replies" : "owed: acknowledgements");
    int result = static_cast<int>(size);
    if (w.device_ip == 0) {
        w.Count("lost: datagram, no interface");
        result = fail(ENETUNREACH);
    } else if (w.Fails("sendto", 3000, {ENOBUFS, EAGAIN, EINTR, EPERM})) {
        w.Count("lost: datagram, no room for it");
        result = -1;
    } else if (to.ip != GROUP || w.is_calm) {
        w.Send({w.device_ip, socket.port}, to, bytes);
    }
    return log_call("sendto", fd, 0, result, bytes, to);
}

extern "C" ssize_t recvfrom(int fd, void* buffer, size_t room, int /*flags*/, sockaddr* from,
                            socklen_t* /*from_size*/) {
    World& w = world();
    std::deque<Datagram>& waiting = socket_of(fd).datagrams;
    Call call;
    call.kind = "recvfrom";
    call.fd = fd;
    call.number = static_cast<long>(room);
    if (w.Fails("recvfrom", 20000, {EINTR, ENOMEM, ECONNREFUSED})) {
        call.result = -1;
    } else {
        call.got = waiting.front().bytes.substr(0, room);
        call.from = waiting.front().from;
        waiting.pop_front();
        call.result = static_cast<long>(call.got.size());
        memcpy(buffer, call.got.data(), call.got.size());
        store(call.from, from);
    }
    const int err = errno;
    const ssize_t result = call.result;
    if (w.running == nullptr) {
        w.Log(std::move(call));
    }
    errno = err;
    return result;
}

extern "C" int select(int count, fd_set* readable, fd_set* /*writable*/, fd_set* /*exceptional*/,
                      timeval* limit) {
    World& w = world();
    Call call;
    for (int fd = 0; fd < count; ++fd) {
        if (FD_ISSET(fd, readable)) {
            call.data += static_cast<char>(fd);
        }
    }
    call.number = static_cast<long>(limit->tv_sec * 1000000 + limit->tv_usec);
    if (w.running != nullptr) {
        const int ready = w.running->Wait(call.data[0], call.number) ? 1 : 0;
        return ready;
    }
    call.kind = call.number == 0 ? "poll" : "select";
    const bool is_wait = call.kind == "select";
    if (is_wait) {
        w.Log(call);
        w.waits();
        const std::string& watched = call.data;
        const Micros until = w.Now() + call.number;
        // It may be late: then more than one is readable.
        if (w.Wait(until, [&] { return !readable_of(watched).empty() || w.IsOver(); }) &&
            !w.is_calm && w.random.OneIn(3)) {
            w.Wait(w.Now() + w.random.Time(30 * MS), [] { return false; });
        }
    }
    call.got = readable_of(call.data);
    call.result = static_cast<long>(call.got.size());
    if (is_wait) {
        const bool is_bus = call.result == 1 && !socket_of(call.got[0] & 255).is_stream;
        w.memory_left = is_bus && !w.is_calm && w.random.OneIn(2000) ? w.random.Below(6) : -1;
    }
    if (w.Fails(is_wait ? "select" : "select without waiting", is_wait ? 40000 : 100000,
                {EINTR, ENOMEM})) {
        call.got.clear();
        call.result = -1;
    }
    const int err = errno;
    FD_ZERO(readable);
    for (const char fd : call.got) {
        FD_SET(static_cast<unsigned char>(fd), readable);
    }
    w.Log(call);
    errno = err;
    return static_cast<int>(call.result);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
