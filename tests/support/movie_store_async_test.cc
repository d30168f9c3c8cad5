#include <gtest/gtest.h>

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

    // Waits for the single completion of `start` and returns its error; it
    // must come on the global queue of `priority`.
    template <typename Start>
    OptionalError await(Start start, QueuePriority priority) {
        const DispatchQueue* queue = nullptr;
        auto error = test::awaitOnce<OptionalError>([&](std::function<void(OptionalError)> done) {
            start([&queue, done](OptionalError e) {
                queue = DispatchQueue::current();
                done(std::move(e));
            });
        });
        EXPECT_EQ(queue, DispatchQueue::global(priority).get());
        return error;
    }

    test::TempDir home;
    MovieStore& store = MovieStore::shared();
};

TEST_F(MovieStoreAsyncTest, RemoveFileOnTheBackgroundQueue) {
    test::writeFile(entry("a.mp4"), "data");
    const auto bg = QueuePriority::Background;
    EXPECT_FALSE(await([&](auto c) { store._srRemoveFile(url("a.mp4"), c); }, bg));
    EXPECT_FALSE(fs::exists(entry("a.mp4")));

    log::Capture capture;
    EXPECT_FALSE(await([&](auto c) { store._srRemoveFile(url("missing.mp4"), c); }, bg));
    EXPECT_TRUE(capture.lines().empty());
    store._srRemoveFile(url("missing.mp4"));  // no completion: nothing to call
}

TEST_F(MovieStoreAsyncTest, MoveReplacesTheDestination) {
    test::writeFile(entry("from.mp4"), "new");
    test::writeFile(entry("to.mp4"), "old");
    const auto def = QueuePriority::Default;
    EXPECT_FALSE(
        await([&](auto c) { store._srMoveFileFromURL(url("from.mp4"), url("to.mp4"), c); }, def));
    std::ifstream in(entry("to.mp4"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "new");

    log::Capture capture;
    auto error = await([&](auto c) { store._srMoveFileFromURL(url("gone"), url("x"), c); }, def);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ENOENT);
    EXPECT_TRUE(capture.contains("_svMoveFileFromURL error: 2", log::Level::Error));
}

TEST_F(MovieStoreAsyncTest, DeleteByPrefixIgnoresCaseAndDiacritics) {
    const std::vector<std::string> removed = {"svmovie_a.mp4", "SVMovie_b.mp4", "SVMövie_c.mp4"},
                                   kept = {"a_SVMovie.mp4", "SVMov.mp4"};
    for (const auto& name : removed) test::writeFile(entry(name), "x");
    for (const auto& name : kept) test::writeFile(entry(name), "x");
    const DispatchQueue* queue = nullptr;
    test::awaitOnce<>([&](std::function<void()> done) {
        store._srDeleteFilesWithPrefix("SVMovie", [&queue, done] {
            queue = DispatchQueue::current();
            done();
        });
    });
    EXPECT_EQ(queue, DispatchQueue::global(QueuePriority::Default).get());
    for (const auto& name : removed) EXPECT_FALSE(fs::exists(entry(name))) << name;
    for (const auto& name : kept) EXPECT_TRUE(fs::exists(entry(name))) << name;
}

}  // namespace
}  // namespace sv
