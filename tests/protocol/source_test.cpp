#include "protocol/source.h"

#include <gtest/gtest.h>

#include "tqr/trace.h"

namespace {

TEST(Source, AddressesAreOfAnyBase) {
    EXPECT_STREQ(DottedQuad(url2ip("\"0x0A.010.2.300")).text, "10.8.3.44");
    EXPECT_EQ(url2ip("10.0.0-1"), 0U);
    EXPECT_EQ(url2ip(nullptr), 0U);
}

}  // namespace
