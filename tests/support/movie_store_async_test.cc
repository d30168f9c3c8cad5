#include <gtest/gtest.h>

#include <thread>

#include "platform/dispatch.h"
#include "platform/log.h"
#include "support/movie_store.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

namespace fs = std::filesystem;

class MovieStoreAsyncTest : public ::testing::Test {
  protected:
    void SetUp() override {
        store.setHomeDirectory(home.path());
        store._srSetupTempDirectory();
    }
    std::string entry(const std::string& name) { return store._srTempPath() + name; }
    URL url(const std::string& name) { return URL::fileURLWithPath(entry(name)); }

    // Waits for a completion and returns its error; checks the calling queue.
    template <typename Start>
    OptionalError await(Start start, const char* expectedQueuePriority) {
        Semaphore done;
        OptionalError result;
        bool onQueue = false;
        start([&](OptionalError error) {
            auto* q = DispatchQueue::current();
            onQueue = q && q == DispatchQueue::global(std::string(expectedQueuePriority) == "bg"
                                                          ? QueuePriority::Background
                                                          : QueuePriority::Default)
                                    .get();
            result = std::move(error);
            done.signal();
        });
        EXPECT_TRUE(done.waitFor(std::chrono::seconds(10)));
        EXPECT_TRUE(onQueue);
        return result;
    }

    test::TempDir home;
    MovieStore& store = MovieStore::shared();
};

TEST_F(MovieStoreAsyncTest, RemoveFile) {
    test::writeFile(entry("a.mp4"), "data");
    EXPECT_FALSE(await([&](auto c) { store._srRemoveFile(url("a.mp4"), c); }, "bg"));
    EXPECT_FALSE(fs::exists(entry("a.mp4")));

    log::Capture capture;
    EXPECT_FALSE(await([&](auto c) { store._srRemoveFile(url("missing.mp4"), c); }, "bg"));
    EXPECT_TRUE(capture.lines().empty());

    store._srRemoveFile(url("missing.mp4"));  // no completion: nothing to call
}

TEST_F(MovieStoreAsyncTest, MoveReplacesTheDestination) {
    test::writeFile(entry("from.mp4"), "new");
    test::writeFile(entry("to.mp4"), "old");
    EXPECT_FALSE(await([&](auto c) { store._srMoveFileFromURL(url("from.mp4"), url("to.mp4"), c); },
                       "default"));
    std::ifstream in(entry("to.mp4"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "new");

    log::Capture capture;
    auto error =
        await([&](auto c) { store._srMoveFileFromURL(url("gone"), url("x"), c); }, "default");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ENOENT);
    EXPECT_TRUE(capture.contains("_svMoveFileFromURL error: 2", log::Level::Error));
}

TEST_F(MovieStoreAsyncTest, DeleteByPrefixIgnoresCaseAndDiacritics) {
    for (const char* name :
         {"svmovie_a.mp4", "SVMovie_b.mp4", "a_SVMovie.mp4", "SVMövie_c.mp4", "SVMov.mp4"})
        test::writeFile(entry(name), "x");
    store._srDeleteFilesWithPrefix("SVMovie");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((fs::exists(entry("svmovie_a.mp4")) || fs::exists(entry("SVMovie_b.mp4")) ||
            fs::exists(entry("SVMövie_c.mp4"))) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(fs::exists(entry("svmovie_a.mp4")));
    EXPECT_FALSE(fs::exists(entry("SVMovie_b.mp4")));
    EXPECT_FALSE(fs::exists(entry("SVMövie_c.mp4")));
    EXPECT_TRUE(fs::exists(entry("a_SVMovie.mp4")));
    EXPECT_TRUE(fs::exists(entry("SVMov.mp4")));
}

}  // namespace
}  // namespace sv
