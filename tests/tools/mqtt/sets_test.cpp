// A broker that accepts no answers for long, which no real one can be made to do.

#include "tools/mqtt/Sets.h"

#include <gtest/gtest.h>

TEST(SetsTest, CarriesOutNothingThatItCantAnswer) {
    MqttConfig config;
    config.site = "studio";
    config.bus.iface = "lo";
    PinFollower pins(config.bus);
    std::string told;
    Sets sets(config, pins, [&told](const std::string& text) { told = text; });
    Broker::Message set{"orvex/studio/set/1/2/out1", "nonsense", false, "reply", "first", {}};
    for (int i = 0; i < 10000; ++i) {
        sets.Take(set, 0, {});
        set.correlation = "later";
    }
    set.payload = "L";
    sets.Take(set, 0, {});
    EXPECT_EQ(sets.Answers().size(), 10000u);
    EXPECT_EQ(sets.Answers().front().correlation, "first");
    EXPECT_EQ(sets.NextTime(), TimePoint::max());  // none is under way
    EXPECT_EQ(told, "the broker accepts no answers: sets are ignored");
}
