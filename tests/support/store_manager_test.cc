#include <gtest/gtest.h>

#include <thread>

#include "platform/dispatch.h"
#include "platform/system/reachability.h"
#include "platform/system/store_lookup.h"
#include "support/store_manager.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

class StoreManagerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::writeFile(apps / "one/bundle.json",
                        R"({"identifier": "com.example.one", "displayName": "One App"})");
        test::writeFile(apps / "catalog.json", R"json({
            "com.example.one": {"shortProductURL": "https://store.example/one",
                                "displayName": "One (Store)", "artistName": "Example Ltd",
                                "genreNames": ["Games", "Puzzle"]},
            "com.example.partial": {"genreNames": [], "artistName": 7},
            "com.example.local": {"artistName": "Someone"}})json");
        test::writeFile(apps / "local/bundle.json",
                        R"({"identifier": "com.example.local", "name": "Local"})");
    }
    void TearDown() override { StoreLookupRequest::setCatalogPath(std::nullopt); }

    // Asks from another thread and runs the main loop until the completion
    // arrives; it must come once, on the main queue.
    std::shared_ptr<SVStoreInfo> lookup(const std::string& bundleID) {
        std::shared_ptr<SVStoreInfo> result;
        int calls = 0;
        const auto mainThread = std::this_thread::get_id();
        std::thread([&] {
            SVStoreManager::sharedManager()->loadItemDetailsForBundleIdentifier(
                bundleID, [&](std::shared_ptr<SVStoreInfo> info) {
                    EXPECT_TRUE(DispatchQueue::main()->isCurrent());
                    EXPECT_EQ(std::this_thread::get_id(), mainThread);
                    result = std::move(info);
                    ++calls;
                    MainRunLoop::stop();
                });
        }).join();
        MainRunLoop::runFor(std::chrono::seconds(10));
        EXPECT_FALSE(MainRunLoop::isRunning());
        EXPECT_EQ(calls, 1);
        return result;
    }

    test::TempDir apps, data;
    test::ScopedEnv env{{"SORVEL_BUNDLE_PATH", apps.path()},
                        {"XDG_DATA_HOME", data.path()},
                        {"SORVEL_STORE_CATALOG", std::nullopt},
                        {"LANGUAGE", "en"}};
};

TEST_F(StoreManagerTest, NoCatalogGivesTheFallbackRecord) {
    auto info = lookup("com.example.one");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->dictionary(), (Value{{"SVStoreInfoBundleIDKey", "com.example.one"},
                                         {"SVStoreInfoAppNameKey", "One App"},
                                         {"SVStoreInfoAuthorKey", ""},
                                         {"SVStoreInfoItemURLKey", ""}}));
    auto unknown = lookup("com.example.unknown");
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->dictionary(), (Value{{"SVStoreInfoBundleIDKey", "com.example.unknown"},
                                            {"SVStoreInfoAuthorKey", ""},
                                            {"SVStoreInfoItemURLKey", ""}}));
}

TEST_F(StoreManagerTest, CatalogItemsAndTheirFallbacks) {
    StoreLookupRequest::setCatalogPath(apps / "catalog.json");
    EXPECT_EQ(lookup("com.example.one")->dictionary(),
              (Value{{"SVStoreInfoBundleIDKey", "com.example.one"},
                     {"SVStoreInfoAppNameKey", "One (Store)"},
                     {"SVStoreInfoAuthorKey", "Example Ltd"},
                     {"SVStoreInfoItemURLKey", "https://store.example/one"},
                     {"SVStoreInfoCategoriesKey", "Games,Puzzle"}}));

    auto partial = lookup("com.example.partial");  // wrong types count as missing
    EXPECT_FALSE(partial->appName);
    EXPECT_EQ(partial->author, "");
    ASSERT_TRUE(partial->categories);
    EXPECT_TRUE(partial->categories->empty());
    EXPECT_FALSE(partial->dictionary().contains("SVStoreInfoCategoriesKey"));

    EXPECT_EQ(lookup("com.example.local")->appName, "Local");  // no store name: local one

    test::writeFile(apps / "catalog.json", "{ not json");  // failed lookup: same fallbacks
    auto failed = lookup("com.example.one");
    EXPECT_EQ(failed->appName, "One App");
    EXPECT_EQ(failed->author, "");
}

TEST_F(StoreManagerTest, LookupServiceAnswersOffTheCallersThread) {
    std::thread::id answerThread;
    StoreLookupRequest request;
    request.bundleIdentifiers = {"com.example.one"};
    test::awaitOnce<>([&](std::function<void()> done) {
        request.start([&, done](const StoreLookupResponse& response, OptionalError error) {
            EXPECT_TRUE(response.results.empty());
            EXPECT_FALSE(error);
            answerThread = std::this_thread::get_id();
            done();
        });
    });
    EXPECT_NE(answerThread, std::this_thread::get_id());
}

TEST(ReachabilityProbe, ResolvesAndChecksTheRouteWithoutTraffic) {
    auto local = ReachabilityQuery::createWithName("localhost");
    ASSERT_TRUE(local);
    EXPECT_EQ(local->getFlags(), std::optional<uint32_t>(kReachabilityReachable));
    EXPECT_FALSE(ReachabilityQuery::createWithName(""));

    auto start = std::chrono::steady_clock::now();
    auto flags = ReachabilityQuery::createWithName("no-such-host.invalid")->getFlags();
    EXPECT_TRUE(!flags || *flags == 0u);  // 0, or unreadable if the resolver stalls
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              ReachabilityQuery::kResolveTimeout + std::chrono::seconds(1));

    SVReachability::setHostName("localhost");
    EXPECT_TRUE(SVReachability::isNetworkAvailable());
    SVReachability::setHostName("no-such-host.invalid");
    EXPECT_FALSE(SVReachability::isNetworkAvailable());
    SVReachability::setHostName(std::nullopt);
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
