#include <gtest/gtest.h>

#include "support/recording_errors.h"

namespace sv {
namespace {

TEST(RecordingErrors, MessagesByCode) {
    const std::pair<int64_t, const char*> table[] = {
        {-5800, "Uknown recording error"},
        {-5801, "The user declined application recording"},
        {-5802, "Recording has been restricted in settings"},
        {-5803, "Recording failed to start"},
        {-5804, "Failed during recording"},
        {-5805, "Insufficient storage for recording"},
        {-5806, "Recording interrupted by another application"},
        {-5807, "Recording interrupted by multitasking and content resizing"},
        {-5808, "Unknown recording error"},
        {-5809, "Unknown recording error"},
        {-5799, "Unknown recording error"},
        {0, "Unknown recording error"},
        {INT64_MIN, "Unknown recording error"},
    };
    for (const auto& [code, message] : table) {
        Error e = _svUserErrorForCode(code);
        EXPECT_EQ(e.domain, "org.sorvel.SVRecordingErrorDomain");
        EXPECT_EQ(e.code, code);  // kept even without a row of its own (-5809)
        EXPECT_EQ(e.localizedDescription(), message) << code;
        EXPECT_EQ(e.userInfo.size(), 1u);
    }
}

TEST(RecordingErrors, CallerDictionaryIsCopiedNotModified) {
    Value caller = {{kLocalizedDescriptionKey, "caller text"}, {"movie", "/tmp/a.mp4"}, {"n", 3}};
    const Value before = caller;
    Error e = _svUserErrorForCode(-5807, &caller);
    EXPECT_EQ(caller, before);
    EXPECT_EQ(e.localizedDescription(),
              "Recording interrupted by multitasking and content resizing");
    EXPECT_EQ(e.userInfo["movie"], "/tmp/a.mp4");
    EXPECT_EQ(e.userInfo["n"], 3);
    EXPECT_EQ(e.userInfo.size(), 3u);

    Value notADictionary = Value::array({1, 2});
    EXPECT_EQ(_svUserErrorForCode(-5801, &notADictionary).userInfo.size(), 1u);
}

TEST(RecordingErrors, WireFormRoundTripAndHostileInput) {
    Error e = _svUserErrorForCode(-5805);
    EXPECT_EQ(Error::fromValue(e.toValue()), e);
    EXPECT_FALSE(Error::fromValue(Value{{"domain", 5}, {"code", -5805}}));
    EXPECT_FALSE(Error::fromValue(Value::array()));
    auto noInfo = Error::fromValue(Value{{"domain", "d"}, {"code", 1}, {"userInfo", "x"}});
    ASSERT_TRUE(noInfo);
    EXPECT_TRUE(noInfo->userInfo.is_object());
}

}  // namespace
}  // namespace sv
