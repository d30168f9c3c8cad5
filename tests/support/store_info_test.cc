#include <gtest/gtest.h>

#include "support/store_info.h"
#include "support/store_manager.h"

namespace sv {
namespace {

TEST(StoreInfo, FallbackRecordAndCategoriesJoinedWithoutSpaces) {
    SVStoreInfo info;
    info.bundleID = "com.example.app";
    EXPECT_EQ(info.dictionary(), (Value{{"SVStoreInfoBundleIDKey", "com.example.app"},
                                        {"SVStoreInfoAuthorKey", ""},
                                        {"SVStoreInfoItemURLKey", ""}}));
    info.appName = "App";
    EXPECT_EQ(info.dictionary()["SVStoreInfoAppNameKey"], "App");
    EXPECT_EQ(info.dictionary().size(), 4u);

    info.categories = std::vector<std::string>{"A", "B"};
    EXPECT_EQ(info.dictionary()["SVStoreInfoCategoriesKey"], "A,B");
    info.categories = std::vector<std::string>{"Games, Puzzle", ""};
    EXPECT_EQ(info.dictionary()["SVStoreInfoCategoriesKey"], "Games, Puzzle,");
    info.categories = std::vector<std::string>{};
    EXPECT_FALSE(info.dictionary().contains("SVStoreInfoCategoriesKey"));
}

TEST(Reachability, FlagRuleAndInjectedProbe) {
    for (uint32_t flags : {2u, 2u | 8u | 0x10000u})
        EXPECT_TRUE(SVReachability::isNetworkAvailableWithFlags(flags)) << flags;
    for (auto flags : {std::optional<uint32_t>(2 | 4), std::optional<uint32_t>(4),
                       std::optional<uint32_t>(0), std::optional<uint32_t>()})
        EXPECT_FALSE(SVReachability::isNetworkAvailableWithFlags(flags));

    std::string probed;
    std::optional<uint32_t> flags = 2;
    SVReachability::setHostName("probe.example");
    SVReachability::setFlagsProvider([&](const std::string& host) {
        probed = host;
        return flags;
    });
    EXPECT_TRUE(SVReachability::isNetworkAvailable());
    EXPECT_EQ(probed, "probe.example");
    flags = 6;
    EXPECT_FALSE(SVReachability::isNetworkAvailable());
    flags = std::nullopt;
    EXPECT_FALSE(SVReachability::isNetworkAvailable());
    SVReachability::setFlagsProvider(nullptr);
    SVReachability::setHostName(std::nullopt);
    EXPECT_EQ(SVReachability::hostName(), SVReachability::kDefaultHostName);
}

}  // namespace
}  // namespace sv
