// The site with everything wired up: remote servers, control server and bus, and a daemon between
// them that is measured.
#pragma once

#include <memory>

#include "tests/e2e/BusPeer.h"
#include "tests/e2e/Site.h"

class Wired : public Site {
protected:
    // Channels 1 and 2 mirror the studio's input 1, channel 3 is on the bus at 0x30.
    void ConfigureChannels();
    void StartPeers();
    void AwaitRunning();  // until all that the daemon's start brings about is over
    void StartAll(std::vector<std::string> environment = {});  // the daemon detached
    void TearDown() override;

    testing::AssertionResult AnswersRead();  // at once
    testing::AssertionResult Works();  // a read, a write, a report and a mirrored line come through

    void SendWrite();  // to channel 3; its line is "GPO 3 Lxxxx"
    void SendRead();   // of channel 3, reliable: an acknowledgement, and the reply twice

    // Of the daemon, in the foreground or detached.
    pid_t Pid() const;
    long ResidentKiB() const;
    // The memory since it was resident_kib, so many events ago: a sanitizer's own can't be told
    // from the daemon's and is not tested.
    void ExpectMemory(long resident_kib, long events, long bytes_per_event = 0) const;
    long Descriptors() const;
    long CpuMs() const;
    long WakeUps() const;  // how often it had to wait

    std::unique_ptr<BusPeer> peer;

private:
    bool AwaitReports(size_t count, int limit_ms = 10000);

    bool m_low = false;  // the state that Works() gave the inputs last
};
