// Simulates days of the daemon's life. scripts/simulate runs it.
//   world DAYS SEED
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <new>

#include "app/orvex.h"
#include "tests/world/Bus.h"
#include "tests/world/Model.h"
#include "tests/world/Peers.h"
#include "tests/world/Writer.h"
#include "tqr/trace.h"

namespace {

void construct_endpoints() {
    new (&local) CTQRClient;
    new (&gpiocli) CGPIOClient(CHANNEL_COUNT);
    new (&rudpsrv) CRUdpLayer3Server;
    new (&rudpcli) CRUdpLayer3Client(0, 1000);
}

void destroy_endpoints() {
    rudpcli.~CRUdpLayer3Client();
    rudpsrv.~CRUdpLayer3Server();
    gpiocli.~CGPIOClient();
    local.~CTQRClient();
}

// One process of the daemon, from start to end.
void live(World& world) {
    char program[] = "/usr/sbin/orvex";
    char option[] = "-debug";
    char* words[] = {program, option, nullptr};
    const bool is_debug = world.random.OneIn(4);
    dbg = 0;
    iface_changed = 0;
    iface = 0;
    std::fill(std::begin(channels), std::end(channels), Channel());
    Model model(world, is_debug);
    world.log.clear();
    world.memory_left = -1;  // what the process before was short of
    construct_endpoints();
    parse_commands(is_debug ? 2 : 1, words);
    world.waits = [&world, &model] {
        if (!model.Advance()) {
            world.Differ("an end", "a wait");
        }
        world.log.clear();
    };
    if (start(program)) {
        CMainLoop loop;
        while (loop.Turn() && !world.IsOver()) {
        }
        world.Count("restarts of the daemon");
    }
    world.waits = [] {};
    const bool is_whole = !world.IsOver();
    if (is_whole && model.Advance()) {
        world.Differ("a wait", "an end");
    }
    destroy_endpoints();
    delete[] msgdump;
    msgdump = nullptr;
    if (is_whole) {
        model.End();
    }
}

// What happens around the daemon: an event every two seconds on average, in bursts and with pauses.
class Nature {
public:
    explicit Nature(World& world) : m_World(world) { Next(); }

private:
    void Next() {
        Random& random = m_World.random;
        Micros pause = random.Time(3400 * MS);
        if (random.OneIn(100)) {
            pause = random.Time(100 * SECOND);
        } else if (m_Rush > 0) {
            --m_Rush;
            pause = random.Time(2 * MS);
        } else if (random.OneIn(300)) {
            m_Rush = random.Below(80);
        }
        m_World.After(pause, [this] {
            Act();
            Next();
        });
    }

    void Act() {
        Random& random = m_World.random;
        m_World.OneOf({{3, nullptr, [this] { Accident(); }},
                       {1, "crowd of senders", [this] { m_Bus.Crowd(); }},
                       {346, nullptr, [this] { m_Tqrd.Act(); }},
                       {250, nullptr, [&] { m_Remotes[random.Below(4)].Act(); }},
                       {150, nullptr,
                        [&] {
                            const uint32_t to = random.Of({GROUP, GROUP, GROUP, m_World.device_ip,
                                                           m_World.device_ip, m_World.device_ip,
                                                           OTHER_DEVICE, OTHER_DEVICE});
                            Writer& writer = m_Writers[random.Below(3)];
                            writer.Give(m_Bus.Message(), {to, REQUEST_PORT});
                        }},
                       {250, nullptr, [this] { m_Bus.Act(); }}});
    }

    void Accident() {
        const auto time = [this](Micros seconds) { return m_World.random.Time(seconds * SECOND); };
        ++m_World.faults;
        m_World.OneOf({{1, "cable cut", [&] { m_World.cut_until = m_World.Now() + time(300); }},
                       {1, "clock set forward", [&] { m_World.clock_offset += time(100); }},
                       {1, "clock set back", [&] { m_World.clock_offset -= time(100); }},
                       {1, "interface without an address",
                        [&] {
                            m_World.device_ip = 0;
                            m_World.After(time(300), [this] { NewAddress(); });
                        }},
                       {1, nullptr, [this] { NewAddress(); }}});
    }

    void NewAddress() {
        m_World.Event("interface with another address");
        m_World.device_ip = m_Tqrd.AnyInterface();
        m_Tqrd.TellInterface();
    }

    World& m_World;
    Tqrd m_Tqrd{m_World};
    Bus m_Bus{m_World, m_Tqrd};
    OtherDevice m_OtherDevice{m_World};
    RemoteServer m_Remotes[4] = {
        {m_World, REMOTES[0]}, {m_World, REMOTES[1]}, {m_World, REMOTES[2]}, {m_World, REMOTES[3]}};
    Writer m_Writers[3] = {{m_World, 0x0A00001E}, {m_World, 0x0A00001F}, {m_World, 0x0A000020}};
    uint32_t m_Rush = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: world DAYS SEED\n");
        return 2;
    }
    World world(strtoull(argv[2], nullptr, 10),
                static_cast<Micros>(strtod(argv[1], nullptr) * static_cast<double>(DAY)));
    FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
    world.report = out;
    // The daemon's own output is not wanted here.
    if (freopen("/dev/null", "w", stdout) == nullptr ||
        freopen("/dev/null", "w", stderr) == nullptr) {
        return 2;
    }
    const auto tell = [&world, out](const char* what) {
        fprintf(out, "%s %lld %ld %ld %016llx\n", what,
                static_cast<long long>(world.Now() / SECOND), world.events, world.faults,
                static_cast<unsigned long long>(world.hash));
        fflush(out);
    };
    world.progress = [&tell] { tell("progress"); };
    destroy_endpoints();
    {
        const Nature nature(world);
        while (!world.IsOver()) {
            live(world);
            world.Wait(world.random.Time(30 * SECOND));
        }
        world.Wait(2 * SECOND);
    }
    construct_endpoints();
    for (const auto& [what, count] : world.counts) {
        fprintf(out, "count %ld %s\n", count, what.c_str());
    }
    tell("done");
    fclose(out);
    return 0;
}
