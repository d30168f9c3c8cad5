#include <gtest/gtest.h>

#include "protocol/broadcast_configuration.h"

namespace sv {
namespace {

// The round trip of whatever a peer sends is the fuzz target's question;
// here, what a record that says nothing usable turns into, and one round trip.
TEST(BroadcastConfiguration, ForeignDataGivesDefaults) {
    const Bytes cases[] = {
        {},                                         // absent
        {0xff, 0x00, 0x13},                         // not CBOR
        encodeCbor(Value::array({1, 2})),           // not a map
        encodeCbor(Value{{"other", 1}}),            // no known entry
        encodeCbor(Value{{"clipDuration", "five"},  // wrong types
                         {"videoCompressionProperties", Value::array({1})}}),
    };
    for (const auto& data : cases) {
        auto c = SVBroadcastConfiguration::decodeFromData(data);
        ASSERT_TRUE(c);
        EXPECT_EQ(c->clipDuration(), 0.0);
        EXPECT_FALSE(c->videoCompressionProperties());
    }
    auto partial = SVBroadcastConfiguration::decodeFromData(
        encodeCbor(Value{{"videoCompressionProperties", {{"k", 1}}}, {"x", true}}));
    EXPECT_EQ(partial->clipDuration(), 0.0);
    EXPECT_TRUE(partial->videoCompressionProperties());
    // What is kept goes back to the peer as it came.
    partial->setClipDuration(-2.5);
    auto back = SVBroadcastConfiguration::decodeFromData(partial->encodedData());
    EXPECT_EQ(back->clipDuration(), -2.5);
    EXPECT_EQ(*back->videoCompressionProperties(), (Value{{"k", 1}}));
}

}  // namespace
}  // namespace sv
