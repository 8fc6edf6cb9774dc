// Drives the daemon and the stand-ins and measures them from outside. Prints JSON. The arguments:
//
// - delay COUNT: the delays of COUNT events of each path, alone on a processor
// - shared COUNT: the same among other programs
// - rate: events per second without loss
// - growth: delays by number of senders and of items
// - idle SECONDS: wake-ups of an idle daemon
// - events PATH COUNT WORD...: only drives a daemon that is started by the command WORD...
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "bench/Rig.h"
#include "bench/sockets.h"

namespace {

using json = nlohmann::json;
using Words = std::vector<std::string>;

std::unique_ptr<Rig> start_daemon(const Words& command = {ORVEX_PROGRAM}) {
    return std::make_unique<Rig>(command, Rig::Kind::Daemon);
}

std::unique_ptr<Rig> start_baseline(const char* name, Path path) {
    return std::make_unique<Rig>(Words{ORVEX_BASELINE, name, path_name(path)}, Rig::Kind::Baseline);
}

// Binds this process, and all it starts from now on, to the processors from first to last.
void pin(int first, int last) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = first; cpu <= last; ++cpu) {
        CPU_SET(cpu, &set);
    }
    sched_setaffinity(0, sizeof set, &set);
}

// Also raises the priority so that no other program runs there in between and fills the caches.
// False if the system does not permit it.
bool pin_alone(int cpu) {
    pin(cpu, cpu);
    const sched_param priority = {1};
    return sched_setscheduler(0, SCHED_FIFO, &priority) == 0;
}

int last_processor() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1;
}

double percentile(std::vector<int64_t>& values, double part) {
    const auto place =
        values.begin() + static_cast<long>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), place, values.end());
    return static_cast<double>(*place) / 1000;
}

json summary(std::vector<int64_t>& delays) {
    return {{"median_us", percentile(delays, 0.5)}, {"p99_us", percentile(delays, 0.99)}};
}

// ---- delay

// A subject and its measurements on one path.
struct Subject {
    std::string name;
    std::unique_ptr<Rig> rig;
    std::vector<int64_t> delays;
};

// The subjects take turns event by event, each turn beginning with a different one, so that all run
// under the same conditions.
json path_delays(Path path, int count) {
    Subject subjects[3] = {{"daemon", start_daemon(), {}},
                           {"least", start_baseline("least", path), {}},
                           {"same", start_baseline("same", path), {}}};
    const int warm_up = 50;
    int64_t cpu[3] = {};
    for (int i = -warm_up; i < count; ++i) {
        for (int k = 0; k < 3; ++k) {
            Subject& subject = subjects[(i + warm_up + k) % 3];
            if (i == 0) {
                cpu[(i + warm_up + k) % 3] = subject.rig->CpuNs();
            }
            const int64_t delay = subject.rig->Event(path);
            if (i >= 0) {
                subject.delays.push_back(delay);
            }
        }
    }
    json result;
    for (int k = 0; k < 3; ++k) {
        Subject& subject = subjects[k];
        json& entry = result[subject.name] = summary(subject.delays);
        entry["cpu_us"] = static_cast<double>(subject.rig->CpuNs() - cpu[k]) / 1000 / count;
        entry["resident_kib"] = subject.rig->ResidentKiB();
    }
    return result;
}

json delay(int count, bool shared) {
    json result;
    if (shared) {
        pin(last_processor(), last_processor());
    } else {
        result["undisturbed"] = pin_alone(last_processor());
    }
    for (int path = 0; path < PATH_COUNT; ++path) {
        result["paths"][PATH_NAMES[path]] = path_delays(static_cast<Path>(path), count);
    }
    return result;
}

// ---- rate

// Sends at the rate for a fifth of a second. Returns whether every event was completed.
bool sustains(Rig& rig, Path path, int rate) {
    const int count = rate / 5;
    const int64_t start = now_ns();
    int sent = 0;
    int done = 0;
    while (sent < count) {
        const int64_t due = (now_ns() - start) * rate / 1000000000;
        for (; sent < std::min<int64_t>(due, count); ++sent) {
            rig.Start(path);
        }
        done += rig.Finish(path);
    }
    const bool kept_up = now_ns() - start < INT64_C(250000000);
    const int64_t end = now_ns() + 200000000;
    while (done < count && now_ns() < end) {
        done += rig.Finish(path);
    }
    return kept_up && done == count;
}

// The highest rate that works, to a twentieth: doubles it until it fails twice, then bisects.
int sustained_rate(Rig& rig, Path path) {
    const auto works = [&](int rate) {
        return sustains(rig, path, rate) || sustains(rig, path, rate);
    };
    int low = 2000;
    int high = 2 * low;
    for (; high < 1000000 && works(high); high *= 2) {
        low = high;
    }
    while (high - low > low / 20) {
        const int middle = low + (high - low) / 2;
        (works(middle) ? low : high) = middle;
    }
    return low;
}

// The ratio of the daemon's processor time at this rate to that of the same calls, run in turn.
json full_rate_cpu(Path path, int rate) {
    pin(last_processor(), last_processor());
    const auto daemon = start_daemon();
    const auto same = start_baseline("same", path);
    pin(0, std::max(0, last_processor() - 1));
    std::vector<double> ratios;
    for (int round = 0; round < 20; ++round) {
        int64_t cpu[2];
        for (Rig* rig : {daemon.get(), same.get()}) {
            const int64_t before = rig->CpuNs();
            sustains(*rig, path, rate);
            cpu[rig == same.get() ? 1 : 0] = rig->CpuNs() - before;
        }
        ratios.push_back(static_cast<double>(cpu[0]) / static_cast<double>(cpu[1]));
    }
    std::nth_element(ratios.begin(), ratios.begin() + 10, ratios.end());
    return ratios[10];
}

json rate() {
    json result;
    for (int path = 0; path < PATH_COUNT; ++path) {
        pin(last_processor(), last_processor());
        const auto rig = start_daemon();
        pin(0, std::max(0, last_processor() - 1));
        rig->Event(static_cast<Path>(path));
        const int before = rig->ResidentKiB();
        const int events = sustained_rate(*rig, static_cast<Path>(path));
        result[PATH_NAMES[path]] = {
            {"events_per_s", events},
            {"cpu_ratio", full_rate_cpu(static_cast<Path>(path), events * 3 / 4)},
            {"resident_before_kib", before},
            {"resident_after_kib", rig->ResidentKiB()}};
    }
    return result;
}

// ---- growth

// Sends one write from each of that many ports. Measures only the last ones, when the other senders
// are known.
json sender_growth(int senders) {
    const auto rig = start_daemon();
    const int measured = 400;
    const int before = rig->ResidentKiB();
    std::string packet = Rig::Packet(Path::Write, 1);
    std::vector<int64_t> delays;
    for (int i = 0; i < std::max(senders, measured); ++i) {
        const int sock = rig->OpenPeer(static_cast<unsigned short>(10000 + i % senders));
        const int64_t delay = rig->BusEvent(Path::Write, sock, packet);
        if (i >= senders - measured) {
            delays.push_back(delay);
        }
        close(sock);
    }
    json result = summary(delays);
    result["senders"] = senders;
    result["resident_before_kib"] = before;
    result["resident_after_kib"] = rig->ResidentKiB();
    return result;
}

json item_growth(Rig& rig, unsigned int items) {
    const int measured = 300;
    std::string packet = Rig::Packet(Path::Write, items);
    const int sock = rig.OpenPeer(0);
    std::vector<int64_t> delays;
    for (int i = 0; i < measured; ++i) {
        delays.push_back(rig.BusEvent(Path::Write, sock, packet));
    }
    close(sock);
    json result = summary(delays);
    result["items"] = items;
    result["resident_after_kib"] = rig.ResidentKiB();
    return result;
}

json growth() {
    json result;
    result["undisturbed"] = pin_alone(last_processor());
    for (const int senders : {1, 10, 100, 1000, 10000, 50000}) {
        result["senders"].push_back(sender_growth(senders));
    }
    const auto rig = start_daemon();
    for (const unsigned int items : {1U, 6U, 16U, 64U, 256U, 1000U, 4000U}) {
        result["items"].push_back(item_growth(*rig, items));
    }
    return result;
}

// ---- idle

json idle(int seconds) {
    const auto rig = start_daemon();
    sleep(1);
    const int before = rig->Wakeups();
    const int64_t cpu = rig->CpuNs();
    sleep(static_cast<unsigned int>(seconds));
    return {{"seconds", seconds},
            {"wakeups", rig->Wakeups() - before},
            {"cpu_us", (rig->CpuNs() - cpu) / 1000},
            {"resident_kib", rig->ResidentKiB()}};
}

json events(Path path, int count, const Words& command) {
    const auto rig = start_daemon(command);
    for (int i = 0; i < count; ++i) {
        rig->Event(path);
    }
    return {{"events", count}, {"pid", rig->Pid()}, {"low_resident_kib", rig->LowResidentKiB()}};
}

}  // namespace

int main(int argc, char** argv) {
    const Words words(argv + 1, argv + argc);
    signal(SIGPIPE, SIG_IGN);
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // to wait for a daemon that has detached
    require(Host::Prepare(), Host::NEEDED);
    Path path = Path::Write;
    json result;
    if (words.size() == 2 && (words[0] == "delay" || words[0] == "shared")) {
        result = delay(atoi(argv[2]), words[0] == "shared");
    } else if (words.size() == 1 && words[0] == "rate") {
        result = rate();
    } else if (words.size() == 1 && words[0] == "growth") {
        result = growth();
    } else if (words.size() == 2 && words[0] == "idle") {
        result = idle(atoi(argv[2]));
    } else if (words.size() >= 4 && words[0] == "events" && find_path(argv[2], path)) {
        result = events(path, atoi(argv[3]), Words(words.begin() + 3, words.end()));
    } else {
        fprintf(stderr,
                "usage: orvex-drive delay COUNT | shared COUNT | rate | growth | idle SECONDS | "
                "events PATH COUNT WORD...\n");
        return 2;
    }
    printf("%s\n", result.dump().c_str());
    return 0;
}
