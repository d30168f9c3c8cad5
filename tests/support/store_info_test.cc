#include <gtest/gtest.h>

#include "support/store_info.h"
#include "support/store_manager.h"

namespace sv {
namespace {

// The store record itself: the store manager's tests, which look it up.
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
