// What the vectors say of messages and sources, against the code that reads them.
#include "tests/support/vectors.h"

#include <gtest/gtest.h>

#include "protocol/source.h"
#include "tests/msg/bytes.h"
#include "tqr/trace.h"

namespace {

TEST(Vectors, MessagesAreDecoded) {
    const nlohmann::json vectors = ReadVectors();
    for (const auto& v : vectors["messages"]) {
        SCOPED_TRACE(v["meaning"]);
        const std::string data = Hex(v["hex"]);
        CMsg2 msg(0, 16);
        EXPECT_EQ(decode(msg, data), v["valid"] ? data.size() : 0);
        if (v["valid"]) {
            EXPECT_EQ(dump(msg), v["text"]);
            EXPECT_EQ(encode(msg), Hex(v.value("again", v["hex"])));
        } else {
            EXPECT_EQ(msg.GetItemCount(), 0);
        }
    }
}

TEST(Vectors, SourcesAreRead) {
    const nlohmann::json vectors = ReadVectors();
    for (const auto& v : vectors["sources"]) {
        SCOPED_TRACE(v["source"]);
        const std::string source = v["source"];
        const ChannelConfig config = parse_source(source.c_str());
        const bool is_remote = config.proto == KIND_REMOTE;
        EXPECT_EQ(config.proto == KIND_BUS ? "bus" : is_remote ? "remote" : "none", v["kind"]);
        EXPECT_EQ(config.ach, v.value("address", 0U));
        EXPECT_EQ(config.port, v.value("port", 0));
        if (is_remote) {
            EXPECT_EQ(DottedQuad(config.ip).text, v["ip"]);
            EXPECT_EQ(config.gpi % 256 + 1, v["input"]);
        }
    }
}

}  // namespace
