#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/log.h"
#include "support/movie_store.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

namespace fs = std::filesystem;

class MovieStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        store.setHomeDirectory(home.path());
        store.setFreeSpaceProvider(nullptr);
    }
    void TearDown() override {
        store.setFreeSpaceProvider(nullptr);
        store.setPasswordLookup(nullptr);
    }

    std::string entry(const std::string& name) { return store._srTempPath() + name; }
    // A file of `size` bytes whose modification time is `age` seconds ago.
    void makeFile(const std::string& name, off_t size, time_t age) {
        test::writeFile(entry(name), "");
        fs::resize_file(entry(name), uintmax_t(size));
        fs::last_write_time(entry(name),
                            fs::file_time_type::clock::now() - std::chrono::seconds(age));
    }
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

    static off_t sizeOf(const std::string& path) {
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
        return st.st_size;
    }

    test::TempDir home;
    MovieStore& store = MovieStore::shared();
    log::Capture capture;
};

TEST_F(MovieStoreTest, SetupCreatesPrivateParentsAndKeepsWhatExists) {
    store.setHomeDirectory(home / "new/home/");
    EXPECT_EQ(store._srTempPath(), home / "new/home/Library/Sorvel/");
    store._srSetupTempDirectory();
    for (const char* dir : {"new", "new/home", "new/home/Library", "new/home/Library/Sorvel"}) {
        struct stat st {};
        ASSERT_EQ(stat((home / dir).c_str(), &st), 0) << dir;
        EXPECT_EQ(st.st_mode & 0777, 0700u) << dir;
    }
    EXPECT_TRUE(capture.contains("_srSetupTempDirectory"));

    // A file where the directory should be counts as existing: no error.
    store.setHomeDirectory(home / "other");
    test::writeFile(home / "other/Library/Sorvel", "x");
    store._srSetupTempDirectory();
    EXPECT_FALSE(capture.contains("error creating temp directory", log::Level::Error));

    // Parents that cannot be created: logged, not fatal.
    store.setHomeDirectory(home / "other/Library/Sorvel/below");
    store._srSetupTempDirectory();
    EXPECT_TRUE(capture.contains("error creating temp directory", log::Level::Error));
    EXPECT_EQ(capture.countContaining("error: "), 1u);
}

TEST_F(MovieStoreTest, HomeIsTheSettingThenHOMEThenThePasswordDatabase) {
    store.setHomeDirectory("");
    {
        test::ScopedEnv env{{"HOME", home / "from-env"}};
        EXPECT_EQ(store.homeDirectory().valueOr(""), home / "from-env");
    }
    test::ScopedEnv noHome{{"HOME", std::nullopt}};
    const passwd* entry = getpwuid(geteuid());  // the test's user always has one
    ASSERT_TRUE(entry && entry->pw_dir);
    EXPECT_EQ(store.homeDirectory().valueOr(""), std::string(entry->pw_dir));
    {
        // Not a home directory: an empty or relative HOME is passed over.
        test::ScopedEnv relative{{"HOME", "relative/home"}};
        EXPECT_EQ(store.homeDirectory().valueOr(""), std::string(entry->pw_dir));
    }

    std::vector<uid_t> asked;
    store.setPasswordLookup([&](uid_t uid) -> std::optional<std::string> {
        asked.push_back(uid);
        return home / "from-passwd";
    });
    EXPECT_EQ(store.homeDirectory().valueOr(""), home / "from-passwd");
    EXPECT_EQ(store._srTempPath(), home / "from-passwd/Library/Sorvel/");
    EXPECT_EQ(asked, std::vector<uid_t>(2, geteuid()));
    store.setHomeDirectory(home / "set");
    EXPECT_EQ(store.homeDirectory().valueOr(""), home / "set");
    EXPECT_EQ(asked.size(), 2u);  // the setting wins without a lookup
}

TEST_F(MovieStoreTest, WithoutAHomeTheStoreRefusesRatherThanUseASharedDirectory) {
    store.setHomeDirectory("");
    test::ScopedEnv noHome{{"HOME", std::nullopt}};
    // Relative paths from the database count as none, like a missing entry.
    for (std::optional<std::string> found :
         {std::optional<std::string>(), std::optional<std::string>(""),
          std::optional<std::string>("home/user")}) {
        store.setPasswordLookup([found](uid_t) { return found; });
        auto none = store.homeDirectory();
        ASSERT_FALSE(none);
        EXPECT_EQ(none.error(),
                  Error::make(kPOSIXErrorDomain, ENOENT,
                              "cannot find a home directory for uid " + std::to_string(geteuid())));
    }
    EXPECT_EQ(store._srTempPath(), "");

    // Every operation fails as for a missing store, and nothing is created,
    // neither in the working directory nor anywhere shared.
    const auto cwd = fs::current_path();
    fs::create_directory(home / "cwd");
    fs::current_path(home / "cwd");
    store.setFreeSpaceProvider([](const std::string&) { return uint64_t(1) << 40; });
    store._srSetupTempDirectory();
    EXPECT_TRUE(capture.contains("error creating temp directory", log::Level::Error));
    EXPECT_EQ(capture.countContaining("cannot find a home directory for uid"), 1u);
    EXPECT_FALSE(store._srSizeOfTempDir());
    EXPECT_EQ(store._srDeleteAllTempFiles(), 0);
    EXPECT_EQ(store._srDeviceFreeDiskSpace(), 0u);
    EXPECT_FALSE(store._srDeviceHasSufficientFreeSpaceForRecording());
    test::awaitOnce<>(
        [&](std::function<void()> done) { store._srDeleteFilesWithPrefix("", done); });
    EXPECT_TRUE(fs::is_empty(home / "cwd"));
    fs::current_path(cwd);
    EXPECT_FALSE(fs::exists("/Library/Sorvel"));
    EXPECT_FALSE(fs::exists(fs::temp_directory_path() / "Library/Sorvel"));
}

TEST_F(MovieStoreTest, PurgeByModificationAge) {
    store._srSetupTempDirectory();
    makeFile("old.mp4", 1000, 86401);
    makeFile("young.mp4", 20, 86399);
    makeFile("future.mp4", 300, -3600);
    EXPECT_EQ(store._srDeleteFilesOlderThanTimeToLiveInSeconds(86400), 1000);
    EXPECT_FALSE(fs::exists(entry("old.mp4")));
    EXPECT_TRUE(fs::exists(entry("young.mp4")));
    EXPECT_TRUE(fs::exists(entry("future.mp4")));
    EXPECT_TRUE(capture.contains("_srDeleteFilesOlderThanTimeToLiveInSeconds: 86400"));
    EXPECT_EQ(capture.count("deleting old file"), 1u);

    // Everything (future-dated too) with a zero time to live; a subdirectory
    // goes with its contents, only its own size counts.
    test::writeFile(entry("dir/inner.bin"), std::string(5000, 'x'));
    const off_t dirSize = sizeOf(entry("dir"));
    EXPECT_EQ(store._srDeleteAllTempFiles(), 320 + dirSize);
    EXPECT_TRUE(fs::is_empty(store._srTempPath()));
    EXPECT_TRUE(capture.contains("_srDeleteFilesOlderThanTimeToLiveInSeconds: 0"));

    store._srDeleteFilesOlderThanTimeToLiveInSeconds(-1.9);
    EXPECT_TRUE(capture.contains("_srDeleteFilesOlderThanTimeToLiveInSeconds: -1"));
}

TEST_F(MovieStoreTest, PurgeGoesOnAfterAFailedRemoval) {
    // An entry whose full path exceeds PATH_MAX can be listed but neither
    // examined nor removed, whoever runs the test (root included).
    std::string deep = home.path();
    while (deep.size() < 3950)
        deep += "/" + std::string(std::min<size_t>(200, 3950 - deep.size()), 'd');
    store.setHomeDirectory(deep);
    store._srSetupTempDirectory();
    int dfd = open(store._srTempPath().c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    ASSERT_GE(dfd, 0);
    const std::string longName(200, 'L');
    close(openat(dfd, longName.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    makeFile("a.mp4", 1000, 10);
    makeFile("b.mp4", 2345, 10);
    makeFile("c.mp4", 7, 10);

    EXPECT_EQ(store._srDeleteAllTempFiles(), 1000 + 2345 + 7);
    EXPECT_GE(capture.count("error in _svRemoveFile_srDeleteFilesOlderThanTimeToLiveInSeconds, "
                            "error code: 36",
                            log::Level::Error),
              1u);
    EXPECT_GE(capture.countContaining("error = "), 1u);
    EXPECT_EQ(faccessat(dfd, longName.c_str(), F_OK, 0), 0);
    EXPECT_FALSE(fs::exists(entry("b.mp4")));
    unlinkat(dfd, longName.c_str(), 0);
    close(dfd);
}

TEST_F(MovieStoreTest, SizeIsTheDirectoryEntryOwnSize) {
    EXPECT_EQ(store._srDeleteAllTempFiles(), 0);  // no store yet
    EXPECT_EQ(capture.countContaining("error in _svRemoveFile_srDeleteFiles"), 1u);
    EXPECT_FALSE(store._srSizeOfTempDir());

    store._srSetupTempDirectory();
    for (int i = 0; i < 4; ++i) makeFile("big" + std::to_string(i) + ".mp4", off_t(1) << 32, 0);
    auto size = store._srSizeOfTempDir();
    ASSERT_TRUE(size) << size.error().description();
    EXPECT_EQ(*size, sizeOf(store._srTempPath()));
    EXPECT_LT(*size, int64_t(1) << 32);
}

TEST_F(MovieStoreTest, FreeSpaceThreshold) {
    std::optional<uint64_t> freeBytes;
    store.setFreeSpaceProvider([&](const std::string& path) {
        EXPECT_EQ(path, store._srTempPath());
        return freeBytes;
    });
    freeBytes = 100000000;
    EXPECT_FALSE(store._srDeviceHasSufficientFreeSpaceForRecording());
    freeBytes = 100000001;
    EXPECT_TRUE(store._srDeviceHasSufficientFreeSpaceForRecording());
    freeBytes = (uint64_t(5) << 32) + 17;
    EXPECT_EQ(store._srDeviceFreeDiskSpace(), (uint64_t(5) << 32) + 17);
    freeBytes = std::nullopt;  // unreadable
    EXPECT_EQ(store._srDeviceFreeDiskSpace(), 0u);
    EXPECT_FALSE(store._srDeviceHasSufficientFreeSpaceForRecording());

    store.setFreeSpaceProvider(nullptr);
    store._srSetupTempDirectory();
    EXPECT_GT(store._srDeviceFreeDiskSpace(), 0u);
}

// A file's creation date, removal on the background queue, a move that
// replaces its destination.
TEST_F(MovieStoreTest, CreationDateRemovalAndMove) {
    store._srSetupTempDirectory();
    makeFile("a.mp4", 1, 0);
    auto date = store._srGetCreationDateForFile(URL::fileURLWithPath(entry("a.mp4")));
    ASSERT_TRUE(date);
    EXPECT_LT(std::chrono::abs(MovieStore::Clock::now() - *date), std::chrono::minutes(1));
    EXPECT_FALSE(store._srGetCreationDateForFile(URL::fileURLWithPath(entry("none.mp4"))));

    const auto bg = QueuePriority::Background;
    EXPECT_FALSE(await([&](auto c) { store._srRemoveFile(url("a.mp4"), c); }, bg));
    EXPECT_FALSE(fs::exists(entry("a.mp4")));

    capture.clear();
    EXPECT_FALSE(await([&](auto c) { store._srRemoveFile(url("missing.mp4"), c); }, bg));
    EXPECT_TRUE(capture.lines().empty());
    store._srRemoveFile(url("missing.mp4"));  // no completion: nothing to call

    test::writeFile(entry("from.mp4"), "new");
    test::writeFile(entry("to.mp4"), "old");
    const auto def = QueuePriority::Default;
    EXPECT_FALSE(
        await([&](auto c) { store._srMoveFileFromURL(url("from.mp4"), url("to.mp4"), c); }, def));
    std::ifstream in(entry("to.mp4"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "new");

    capture.clear();
    auto error = await([&](auto c) { store._srMoveFileFromURL(url("gone"), url("x"), c); }, def);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, ENOENT);
    EXPECT_TRUE(capture.contains("_svMoveFileFromURL error: 2", log::Level::Error));
}

TEST_F(MovieStoreTest, DeleteByPrefixIgnoresCaseAndDiacritics) {
    store._srSetupTempDirectory();
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
