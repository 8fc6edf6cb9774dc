// Both versions of the protocol of switchers: as datagrams, and as a stream that is cut anywhere.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/Check.h"
#include "tools/tsl/Codec.h"

namespace {

// What was read is the same after it was written and read again.
void check_round_trip(const std::vector<Display>& displays) {
    for (const Display& display : displays) {
        std::vector<Display> again;
        for (const std::string& packet : EncodeTsl({display})) {
            CHECK(DecodeTsl(display.version, reinterpret_cast<const uint8_t*>(packet.data()),
                            packet.size(), again)
                      .empty());
        }
        CHECK(again.size() == 1 && again[0].IsSamePlace(display));
        CHECK(again[0].tallies == display.tallies && again[0].brightness == display.brightness);
    }
}

void check_stream(TslVersion version, const uint8_t* data, size_t size, size_t piece) {
    TslStream stream(version);
    size_t taken = 0;
    for (size_t at = 0; at < size; at += piece) {
        stream.Take(
            data + at, std::min(piece, size - at),
            [&](const uint8_t* packet, size_t length) {
                CHECK(length <= TSL5_MAX_SIZE);
                taken += length;
                std::vector<Display> displays;
                DecodeTsl(version, packet, length, displays);
                check_round_trip(displays);
            },
            [] {});
    }
    CHECK(taken <= size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (const TslVersion version : {TslVersion::V31, TslVersion::V5}) {
        std::vector<Display> displays;
        const bool is_good = DecodeTsl(version, data, size, displays).empty();
        CHECK(is_good || displays.empty());
        check_round_trip(displays);
        check_stream(version, data, size, size + 1);
        check_stream(version, data, size, 3);
    }
    return 0;
}
