// The site with all its peers: remote servers, control server and bus. The daemon between them is
// measured.
#pragma once

#include <memory>

#include "tests/e2e/BusPeer.h"
#include "tests/e2e/Site.h"

class Wired : public Site {
protected:
    // Channels 1 and 2 mirror the studio's input 1, channel 3 is on the bus at 0x30.
    void ConfigureChannels();
    void StartPeers();
    void AwaitRunning();  // until the daemon has completed its start
    void StartAll(const std::vector<std::string>& environment = {});  // the daemon detached
    void TearDown() override;

    testing::AssertionResult AnswersRead();  // at once
    testing::AssertionResult Works();  // a read, a write, a report and a mirrored line get through

    void SendWrite();  // to channel 3; its line is "GPO 3 Lxxxx"
    void SendRead();   // of channel 3, reliable: an acknowledgement, and the reply twice

    // Of the daemon, in the foreground or detached.
    pid_t Pid() const;
    long ResidentKiB() const;
    // Checks the growth in memory since it was resident_kib, that many events ago. Does nothing in
    // builds with a sanitizer, whose own memory can't be separated from the daemon's.
    void ExpectMemory(long resident_kib, long events, long bytes_per_event = 0) const;
    long Descriptors() const;
    long CpuMs() const;
    long WakeUps() const;  // how often it had to wait

    std::unique_ptr<BusPeer> peer;

private:
    bool AwaitReports(size_t count, int limit_ms = 10000);

    bool m_low = false;  // the last state of the inputs set by Works()
};
