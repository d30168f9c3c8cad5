#include <gtest/gtest.h>

#include "support/store_info.h"
#include "support/store_manager.h"

namespace sv {
namespace {

TEST(StoreInfo, FallbackRecordDictionary) {
    SVStoreInfo info;
    info.bundleID = "com.example.app";
    EXPECT_EQ(info.dictionary(), (Value{{"SVStoreInfoBundleIDKey", "com.example.app"},
                                        {"SVStoreInfoAuthorKey", ""},
                                        {"SVStoreInfoItemURLKey", ""}}));
    info.appName = "App";
    EXPECT_EQ(info.dictionary()["SVStoreInfoAppNameKey"], "App");
    EXPECT_EQ(info.dictionary().size(), 4u);
}

TEST(StoreInfo, CategoriesJoinedWithoutSpaces) {
    SVStoreInfo info;
    info.categories = std::vector<std::string>{"A", "B"};
    EXPECT_EQ(info.dictionary()["SVStoreInfoCategoriesKey"], "A,B");
    info.categories = std::vector<std::string>{"Games, Puzzle", ""};
    EXPECT_EQ(info.dictionary()["SVStoreInfoCategoriesKey"], "Games, Puzzle,");
    info.categories = std::vector<std::string>{};
    EXPECT_FALSE(info.dictionary().contains("SVStoreInfoCategoriesKey"));
    info.categories.reset();
    EXPECT_FALSE(info.dictionary().contains("SVStoreInfoCategoriesKey"));
}

TEST(Reachability, FlagRule) {
    EXPECT_TRUE(SVReachability::isNetworkAvailableWithFlags(2));
    EXPECT_TRUE(SVReachability::isNetworkAvailableWithFlags(2 | 8 | 0x10000));
    EXPECT_FALSE(SVReachability::isNetworkAvailableWithFlags(2 | 4));
    EXPECT_FALSE(SVReachability::isNetworkAvailableWithFlags(4));
    EXPECT_FALSE(SVReachability::isNetworkAvailableWithFlags(0));
    EXPECT_FALSE(SVReachability::isNetworkAvailableWithFlags(std::nullopt));
}

TEST(Reachability, InjectedProbeSeesTheConfiguredHost) {
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
