// Where switchers send to: datagrams and connections.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "tools/base/Descriptor.h"
#include "tools/base/Time.h"
#include "tools/tsl/Codec.h"
#include "tools/tsl/Config.h"

// For a program with a loop around poll(). Memory is bounded, whoever connects and whatever is
// sent.
class Inputs {
public:
    // Packets with displays that were well-formed. host is in host byte order; time is when the
    // system received them, which is earlier than now if this program was held up.
    using Take =
        std::function<void(const std::vector<Display>& displays, uint32_t host, TimePoint time)>;
    // A packet that was not, with the reason; of a stream, without bytes.
    using Malformed =
        std::function<void(uint32_t host, const std::string& reason, const std::string& bytes)>;
    // So many datagrams were lost because earlier ones were not taken in time.
    using Lost = std::function<void(uint64_t count)>;
    using Log = std::function<void(const std::string&)>;

    Inputs(Take take, Malformed malformed, Lost lost, Log log);

    // Listens there and nowhere else. Sockets of places that stay are not touched. If one can't be
    // had, throws std::system_error and nothing has changed.
    void Listen(const std::vector<TslListen>& wanted);

    void AddDescriptors(std::vector<pollfd>& fds) const;

    // Handles what has come, at most so much that the caller can serve others. Never waits.
    void Serve(const std::vector<pollfd>& fds);

private:
    struct Listener {
        TslListen config;
        Descriptor socket;
        size_t clients = 0;
        bool refused = false;  // told that there are too many
        uint32_t lost = 0;     // datagrams, as the system counts them
    };
    struct Client {
        Descriptor socket;
        TslListen config;
        uint32_t host;
        TslStream stream;
    };

    Listener Open(const TslListen& config) const;
    void ReceiveAll(Listener& listener);
    void Accept(Listener& listener);
    bool Read(Client& client);
    void TakePacket(TslVersion version, uint32_t host, TimePoint time, const uint8_t* data,
                    size_t size);
    void Close(const std::list<Client>::iterator& client);

    const Take m_take;
    const Malformed m_malformed;
    const Lost m_lost;
    const Log m_log;
    std::list<Listener> m_listeners;
    std::list<Client> m_clients;
    std::vector<Display> m_displays;  // of the packet at hand
};

// The bytes as "80 01 41 ...", at most the first 32.
std::string HexOf(const std::string& bytes);
