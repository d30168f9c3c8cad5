#include <gtest/gtest.h>

#include "platform/value.h"

namespace sv {
namespace {

TEST(Cbor, RoundTripsRecordsWithByteStrings) {
    Value v = {{"clipDuration", 2.5},
               {"name", "Caf\xc3\xa9"},
               {"count", -7},
               {"big", uint64_t(1) << 63},
               {"flags", {true, false, nullptr}},
               {"nested", {{"a", {{"b", {1, 2, 3}}}}}}};
    v["payload"] = bytesValue(Bytes(57344, 0xAB));
    Bytes enc = encodeCbor(v);
    auto dec = decodeCbor(enc);
    ASSERT_TRUE(dec) << dec.error;
    EXPECT_EQ(*dec.value, v);
    ASSERT_NE(bytesOf((*dec.value)["payload"]), nullptr);
    EXPECT_EQ(bytesOf((*dec.value)["payload"])->size(), 57344u);
    EXPECT_EQ(numberAt(*dec.value, "clipDuration"), 2.5);
    EXPECT_EQ(intAt(*dec.value, "count"), -7);
    EXPECT_FALSE(intAt(*dec.value, "big").has_value());  // does not fit int64
    EXPECT_FALSE(stringAt(*dec.value, "count").has_value());
}

TEST(Cbor, AcceptsIndefiniteLengthsAndTags) {
    // {_ "a": [_ 1, 2], "b": (_ h'01', h'02')} with a tag on the map.
    Bytes in = {0xc0 | 24, 100, 0xbf, 0x61, 'a',  0x9f, 0x01, 0x02, 0xff,
                0x61,      'b', 0x5f, 0x41, 0x01, 0x41, 0x02, 0xff, 0xff};
    auto dec = decodeCbor(in);
    ASSERT_TRUE(dec) << dec.error;
    EXPECT_EQ((*dec.value)["a"], Value({1, 2}));
    EXPECT_EQ(*bytesOf((*dec.value)["b"]), Bytes({1, 2}));
}

TEST(Cbor, RejectsHostileInputWithClearErrors) {
    struct Case {
        const char* name;
        Bytes bytes;
        const char* fragment;
    };
    Bytes deep(100000, 0x81);  // [[[[...
    deep.push_back(0x00);
    Bytes tags(100000, 0xc6);  // tag(6) tag(6) ... 0
    tags.push_back(0x00);
    std::vector<Case> cases = {
        {"empty", {}, "empty"},
        {"truncated header", {0x1b, 0x00, 0x01}, "truncated"},
        {"huge byte string",
         {0x5b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x00},
         "longer"},
        {"huge array", {0x9b, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00}, "longer"},
        {"huge map", {0xbb, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x00}, "longer"},
        {"deep nesting", deep, "deep"},
        {"tag chain", tags, "deep"},
        {"trailing bytes", {0x01, 0x02}, "trailing"},
        {"stray break", {0xff}, "break"},
        {"reserved info", {0x1c}, "reserved"},
        {"unterminated indefinite", {0x9f, 0x01}, "truncated"},
        {"bad chunk", {0x5f, 0x61, 'a', 0xff}, "chunk"},
        {"integer map key", {0xa1, 0x01, 0x02}, "malformed"},
        {"invalid utf8", {0x62, 0xff, 0xfe}, "malformed"},
        // -2^63-1: one below INT64_MIN, which the parser would read as INT64_MAX.
        {"negative below int64",
         {0x3b, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00},
         "below the 64-bit range"},
        {"negative below int64 inside a map",
         {0xa1, 0x61, 'u', 0x3b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
         "below the 64-bit range"},
    };
    for (const auto& c : cases) {
        auto dec = decodeCbor(c.bytes);
        EXPECT_FALSE(dec) << c.name;
        EXPECT_NE(dec.error.find(c.fragment), std::string::npos) << c.name << ": " << dec.error;
    }
    CborLimits small;
    small.maxBytes = 8;
    EXPECT_FALSE(decodeCbor(encodeCbor(Value("0123456789")), small));
}

TEST(Cbor, IntegersKeepTheirValueOrNarrowOnlyWhenTheyFit) {
    // The extremes of both CBOR integer types decode exactly.
    auto lowest = decodeCbor(Bytes{0x3b, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
    ASSERT_TRUE(lowest) << lowest.error;
    EXPECT_EQ(integerOf<int64_t>(*lowest.value), INT64_MIN);
    auto highest = decodeCbor(Bytes{0x1b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
    ASSERT_TRUE(highest) << highest.error;
    EXPECT_EQ(integerOf<uint64_t>(*highest.value), UINT64_MAX);
    EXPECT_FALSE(integerOf<int64_t>(*highest.value));

    EXPECT_EQ(integerOf<int32_t>(Value(INT32_MIN)), INT32_MIN);
    EXPECT_EQ(integerOf<int32_t>(Value(uint64_t(INT32_MAX))), INT32_MAX);
    for (const Value& v : {Value(int64_t(INT32_MAX) + 1), Value(int64_t(INT32_MIN) - 1), Value(2.0),
                           Value(true), Value("3")})
        EXPECT_FALSE(integerOf<int32_t>(v)) << v.dump();
    EXPECT_FALSE(integerOf<uint32_t>(Value(-1)));
    EXPECT_EQ(integerOf<uint32_t>(Value(UINT32_MAX)), UINT32_MAX);
}

TEST(Value, DescribeShowsBytesBySize) {
    Value v = {{"k", bytesValue(Bytes(72, 0))}};
    EXPECT_EQ(describe(v), "{\"k\":\"<72 bytes>\"}");
    EXPECT_EQ(describe(Value("plain")), "plain");
    EXPECT_EQ(describe(Value()), "(null)");
}

}  // namespace
}  // namespace sv
