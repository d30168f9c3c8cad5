#include <gtest/gtest.h>

#include <atomic>
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

    // Runs the main loop until the completion arrives; checks where it ran.
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
    EXPECT_EQ(info->bundleID, "com.example.one");
    EXPECT_EQ(info->appName, "One App");
    EXPECT_EQ(info->author, "");
    EXPECT_EQ(info->itemURL, "");
    EXPECT_FALSE(info->categories);

    auto unknown = lookup("com.example.unknown");
    ASSERT_TRUE(unknown);
    EXPECT_FALSE(unknown->appName);
    EXPECT_EQ(unknown->dictionary(), (Value{{"SVStoreInfoBundleIDKey", "com.example.unknown"},
                                            {"SVStoreInfoAuthorKey", ""},
                                            {"SVStoreInfoItemURLKey", ""}}));
}

TEST_F(StoreManagerTest, CatalogItemsAndTheirFallbacks) {
    StoreLookupRequest::setCatalogPath(apps / "catalog.json");
    auto one = lookup("com.example.one");
    EXPECT_EQ(one->appName, "One (Store)");
    EXPECT_EQ(one->author, "Example Ltd");
    EXPECT_EQ(one->itemURL, "https://store.example/one");
    EXPECT_EQ(one->dictionary()["SVStoreInfoCategoriesKey"], "Games,Puzzle");

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
    std::atomic<bool> answered{false};
    std::thread::id answerThread;
    Semaphore done;
    StoreLookupRequest request;
    request.bundleIdentifiers = {"com.example.one"};
    request.start([&](const StoreLookupResponse& response, std::error_code error) {
        EXPECT_TRUE(response.results.empty());
        EXPECT_FALSE(error);
        answerThread = std::this_thread::get_id();
        answered = true;
        done.signal();
    });
    ASSERT_TRUE(done.waitFor(std::chrono::seconds(10)));
    EXPECT_TRUE(answered);
    EXPECT_NE(answerThread, std::this_thread::get_id());
}

TEST(StoreManager, SharedManagerIsOneInstanceAcrossThreads) {
    std::shared_ptr<SVStoreManager> seen[2];
    std::atomic<int> ready{0};
    auto grab = [&](int i) {
        ++ready;
        while (ready < 2) std::this_thread::yield();
        seen[i] = SVStoreManager::sharedManager();
    };
    std::thread a(grab, 0), b(grab, 1);
    a.join();
    b.join();
    ASSERT_TRUE(seen[0]);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[0], SVStoreManager::sharedManager());
}

TEST(ReachabilityProbe, ResolvesAndChecksTheRouteWithoutTraffic) {
    auto local = ReachabilityQuery::createWithName("localhost");
    ASSERT_TRUE(local);
    EXPECT_EQ(local->getFlags(), std::optional<uint32_t>(kReachabilityReachable));

    auto start = std::chrono::steady_clock::now();
    auto bogus = ReachabilityQuery::createWithName("no-such-host.invalid");
    auto flags = bogus->getFlags();  // 0, or unreadable if the resolver stalls
    EXPECT_TRUE(!flags || *flags == 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              ReachabilityQuery::kResolveTimeout + std::chrono::seconds(1));
    EXPECT_FALSE(ReachabilityQuery::createWithName(""));

    SVReachability::setHostName("localhost");
    EXPECT_TRUE(SVReachability::isNetworkAvailable());
    SVReachability::setHostName("no-such-host.invalid");
    EXPECT_FALSE(SVReachability::isNetworkAvailable());
    SVReachability::setHostName(std::nullopt);
}

}  // namespace
}  // namespace sv
