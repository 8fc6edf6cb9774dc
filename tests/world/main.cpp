// Days in the life of the daemon: scripts/simulate runs it.
//   world --days N --seed S [--progress]
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "app/orvex.h"
#include "tests/world/Model.h"
#include "tests/world/Peers.h"
#include "tests/world/Writer.h"
#include "tqr/trace.h"

namespace {

template <class T, class... Arguments>
void anew(T& object, Arguments... arguments) {
    object.~T();
    new (&object) T(arguments...);
}

// One process, from its start to its end.
void live(World& world) {
    char program[] = "/usr/sbin/orvex";
    char option[] = "-debug";
    char* words[] = {program, option, nullptr};
    world.is_debug = world.random.OneIn(4);
    dbg = 0;
    iface_changed = 0;
    iface = 0;
    for (Channel& channel : channels) {
        channel = {};
    }
    Model model(world);
    world.log.clear();
    anew(local);
    anew(gpiocli, CHANNEL_COUNT);
    anew(rudpsrv);
    anew(rudpcli, static_cast<unsigned short>(0), 1000UL);
    world.log.clear();
    parse_commands(world.is_debug ? 2 : 1, words);
    bool is_started = false;
    world.waits = [&world, &model, &is_started] {
        if (!is_started && !model.Start(world.is_debug)) {
            world.Differ("an end with status 1", "a wait");
        }
        if (is_started && !model.Turn()) {
            world.Differ("an end with status 2", "a wait");
        }
        is_started = true;
        world.log.clear();
    };
    if (start(program)) {
        CMainLoop loop;
        while (loop.Turn() && !world.IsOver()) {
        }
        world.waits = [] {};
        world.Count("restarts of the daemon");
        if (!world.IsOver() && model.Turn()) {
            world.Differ("a wait", "an end");
        }
    } else if (model.Start(world.is_debug)) {
        world.Differ("a wait", "an end with status 1");
    }
    const bool is_whole = !world.IsOver();
    rudpcli.~CRUdpLayer3Client();
    rudpsrv.~CRUdpLayer3Server();
    gpiocli.~CGPIOClient();
    local.~CTQRClient();
    delete[] msgdump;
    msgdump = nullptr;
    if (is_whole) {
        model.End();
    }
    new (&local) CTQRClient;
    new (&gpiocli) CGPIOClient(CHANNEL_COUNT);
    new (&rudpsrv) CRUdpLayer3Server;
    new (&rudpcli) CRUdpLayer3Client(0, 1000);
}

// What happens by itself: every two seconds on average, in rushes and with pauses.
class Nature {
public:
    explicit Nature(World& world) : m_World(world), m_Tqrd(world), m_Bus(world, m_Tqrd) {
        const Endpoint SERVERS[] = {
            {0x0A000009, 93}, {0x0A000009, 94}, {0x0A00000A, 93}, {0x0A00000B, 40000}};
        for (const Endpoint& at : SERVERS) {
            m_Remotes.push_back(std::make_unique<RemoteServer>(world, at));
        }
        for (uint32_t i = 0; i < 3; ++i) {
            m_Writers.push_back(std::make_unique<Writer>(world, 0x0A00001E + i));
        }
        Next();
    }

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
        const uint32_t what = random.Below(1000);
        if (what < 3) {
            Accident();
        } else if (what < 4) {
            m_Bus.Crowd();
        } else if (what < 350) {
            m_Tqrd.Act();
        } else if (what < 600) {
            m_Remotes[random.Below(4)]->Act();
        } else if (what < 750) {
            const Endpoint to = {random.OneIn(2) ? GROUP : m_World.device_ip, REQUEST_PORT};
            Writer& writer = *m_Writers[random.Below(3)];
            writer.Give(m_Bus.Message(), to);
        } else {
            m_Bus.Act();
        }
    }

    void Accident() {
        Random& random = m_World.random;
        ++m_World.faults;
        switch (random.Below(5)) {
            case 0:
                m_World.Event("cable cut");
                m_World.cut_until = m_World.Now() + random.Time(300 * SECOND);
                break;
            case 1:
                m_World.Event("clock set forward");
                m_World.clock_offset += random.Time(100 * SECOND);
                break;
            case 2:
                m_World.Event("clock set back");
                m_World.clock_offset -= random.Time(100 * SECOND);
                break;
            case 3:
                m_World.Event("interface without an address");
                m_World.device_ip = 0;
                m_World.After(random.Time(300 * SECOND), [this] { NewAddress(); });
                break;
            default:
                NewAddress();
                break;
        }
    }

    void NewAddress() {
        m_World.Event("interface with another address");
        m_World.device_ip = m_World.random.Of(DEVICE_ADDRESSES);
        m_Tqrd.TellInterface();
    }

    World& m_World;
    Tqrd m_Tqrd;
    Bus m_Bus;
    std::vector<std::unique_ptr<RemoteServer>> m_Remotes;
    std::vector<std::unique_ptr<Writer>> m_Writers;
    uint32_t m_Rush = 0;
};

}  // namespace

int main(int argc, char** argv) {
    double days = 1;
    uint64_t seed = 1;
    bool with_progress = false;
    for (int i = 1; i < argc; ++i) {
        const bool has_value = i + 1 < argc;
        if (strcmp(argv[i], "--days") == 0 && has_value) {
            days = strtod(argv[++i], nullptr);
        } else if (strcmp(argv[i], "--seed") == 0 && has_value) {
            seed = strtoull(argv[++i], nullptr, 10);
        } else if (strcmp(argv[i], "--progress") == 0) {
            with_progress = true;
        } else {
            fprintf(stderr, "usage: world [--days N] [--seed S] [--progress]\n");
            return 2;
        }
    }
    FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
    // What the daemon says is for others to look at.
    if (freopen("/dev/null", "w", stdout) == nullptr ||
        freopen("/dev/null", "w", stderr) == nullptr) {
        return 2;
    }
    World world(seed, static_cast<Micros>(days * static_cast<double>(DAY)));
    world.report = out;
    if (with_progress) {
        world.progress = [&world, out] {
            fprintf(out, "progress %lld %ld %ld\n", static_cast<long long>(world.Now() / SECOND),
                    world.events, world.faults);
            fflush(out);
        };
    }
    {
        const Nature nature(world);
        while (!world.IsOver()) {
            live(world);
            world.Wait(world.Now() + world.random.Time(30 * SECOND), [] { return false; });
        }
        world.waits = [] {};
        world.Wait(world.Now() + 2 * SECOND, [] { return false; });
    }
    for (const auto& [what, count] : world.counts) {
        fprintf(out, "count %ld %s\n", count, what.c_str());
    }
    fprintf(out, "done %lld %ld %ld %016llx\n", static_cast<long long>(world.Now() / SECOND),
            world.events, world.faults, static_cast<unsigned long long>(world.hash));
    fclose(out);
    return 0;
}
