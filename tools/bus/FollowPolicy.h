// What a PinFollower reads, and how often.
#pragma once

struct FollowPolicy {
    enum class Reads {
        Wanted,    // the addresses of wanted pins
        Heard,     // and of all pins that were heard of
        Addresses  // all ten pins of those addresses, whether they were heard of or not
    };
    Reads reads = Reads::Heard;

    // Seconds between two reads of an address that answers. 0: nothing is read but with Read().
    double every = 10;
    // Inputs are reported: they are read in one of so many reads.
    unsigned int input_rounds = 1;
    double answer_time = 1;  // seconds
    int misses = 3;
    double forgets_after = 3600;  // seconds without a sign of a device
    // Whether pins that somebody has written are read, see PinStates.
    bool reads_written = true;
    // Whether what is heard while the bus is down counts, such as the reports of a daemon on the
    // same host. It can't be read again then: nobody would notice if the daemon ends.
    bool takes_while_down = true;

    // If the bus can't be used at the start, tries again every second. Otherwise the constructor
    // throws BusError.
    bool keeps_trying = false;
};
