#include <gtest/gtest.h>

#include "protocol/broadcast_configuration.h"

namespace sv {
namespace {

TEST(BroadcastConfiguration, DefaultsAndRoundTrip) {
    SVBroadcastConfiguration c;
    EXPECT_EQ(c.clipDuration(), 0.0);
    EXPECT_FALSE(c.videoCompressionProperties());

    c.setClipDuration(-2.5);  // survives unchanged
    c.setVideoCompressionProperties(Value{{"SVVideoAverageBitRateKey", 1000000}});
    auto back = SVBroadcastConfiguration::decodeFromData(c.encodedData());
    EXPECT_EQ(back->clipDuration(), -2.5);
    ASSERT_TRUE(back->videoCompressionProperties());
    EXPECT_EQ((*back->videoCompressionProperties())["SVVideoAverageBitRateKey"], 1000000);
    // "clipDuration" is written first.
    Value v = c.encodeWithCoder();
    EXPECT_EQ(v.begin().key(), "clipDuration");
    EXPECT_TRUE(v["clipDuration"].is_number_float());

    // An empty dictionary is not written: it comes back null, not empty.
    c.setVideoCompressionProperties(Value::object());
    EXPECT_EQ(c.encodeWithCoder().size(), 1u);
    EXPECT_FALSE(
        SVBroadcastConfiguration::decodeFromData(c.encodedData())->videoCompressionProperties());
}

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
}

}  // namespace
}  // namespace sv
