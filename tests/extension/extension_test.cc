// Installed extensions and extension requests through real extension
// processes (tests/extension/test_extension.cc), and the broadcast lookup
// of the recording manager on top of them.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include <gtest/gtest.h>

#include "daemon/recording_manager.h"
#include "platform/extension/app_extension.h"
#include "platform/extension/extension_sandbox.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

// What the handlers of one extension handle received, under a lock.
struct Outcome {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::string> begun;
    std::map<std::string, std::vector<ExtensionItem>> completed;
    std::map<std::string, Error> broken;
    OptionalError beginError;

    void watch(AppExtension& extension) {
        extension.setRequestCompletionBlock(
            [this](const std::string& id, std::vector<ExtensionItem> items) {
                std::lock_guard lock(mutex);
                EXPECT_FALSE(completed.count(id) || broken.count(id)) << "finished twice: " << id;
                completed[id] = std::move(items);
                cv.notify_all();
            });
        extension.setRequestCancellationBlock([this](const std::string& id, const Error& error) {
            std::lock_guard lock(mutex);
            EXPECT_FALSE(completed.count(id) || broken.count(id)) << "finished twice: " << id;
            broken.emplace(id, error);
            cv.notify_all();
        });
    }
    AppExtension::BeginCompletion onBegin() {
        return [this](std::string id, OptionalError error) {
            std::lock_guard lock(mutex);
            begun.push_back(id);
            beginError = error;
            cv.notify_all();
        };
    }
    // Waits (bounded) until the request `index` has begun and ended.
    bool ended(size_t index, std::chrono::milliseconds timeout = 20s) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, timeout, [&] {
            return begun.size() > index &&
                   (completed.count(begun[index]) || broken.count(begun[index]));
        });
    }
};

// Gone for good: not even a zombie (kill(pid, 0) succeeds on a zombie).
bool reaped(pid_t pid) {
    return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

class ExtensionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        env_.reset(new test::ScopedEnv{{"SORVEL_BUNDLE_PATH", first_.path() + ":" + second_.path()},
                                       {"XDG_DATA_HOME", first_.path() + "/none"}});
    }
    // A bundle `dir`/`name` with an extension entry running the test extension.
    void bundle(const test::TempDir& dir, const std::string& name, const std::string& identifier,
                const std::string& point, Value attributes = Value::object()) {
        const std::string path = dir / name;
        fs::create_directories(path + "/bin");
        fs::create_symlink(TEST_EXTENSION, path + "/bin/extension");
        Value info = {
            {"identifier", identifier},
            {"extension",
             {{"point", point}, {"executable", "bin/extension"}, {"attributes", attributes}}}};
        test::writeFile(path + "/bundle.json", info.dump());
    }
    std::shared_ptr<AppExtension> extension(const std::string& identifier) {
        for (const auto& e : AppExtension::installedExtensions(kBroadcastServicesExtensionPoint))
            if (e->identifier() == identifier) return e;
        return nullptr;
    }

    test::TempDir first_, second_, store_;
    std::unique_ptr<test::ScopedEnv> env_;
};

TEST_F(ExtensionTest, LookupSkipsMainInterfacesAndTakesTheFirstListed) {
    const Value ui = {{kExtensionMainInterfaceKey, "ui.json"}};
    bundle(first_, "a-ui", "com.example.game.ui", kBroadcastServicesExtensionPoint, ui);
    bundle(first_, "b-upload", "com.example.game.upload", kBroadcastServicesExtensionPoint);
    bundle(first_, "c-upload", "com.example.game.upload2", kBroadcastServicesExtensionPoint);
    bundle(first_, "d-share", "com.example.share.upload", "org.sorvel.share-services");
    bundle(first_, "e-live", "com.example.live.samples", kBroadcastServicesExtensionPoint,
           {{"SVBroadcastProcessMode", "SVBroadcastProcessModeSampleBuffer"}});
    bundle(first_, "f-live", "com.example.live.ui", kBroadcastServicesExtensionPoint, ui);
    bundle(first_, "g-odd", "com.example.odd.upload", kBroadcastServicesExtensionPoint,
           {{"SVBroadcastProcessMode", "SVBroadcastProcessModeUpload"}});
    // Hidden by the bundle of the same identifier earlier on the path.
    bundle(second_, "a-shadow", "com.example.game.upload", kBroadcastServicesExtensionPoint,
           {{"SVBroadcastProcessMode", "SVBroadcastProcessModeSampleBuffer"}});

    struct Case {
        std::string named;
        std::string found;  // "" = none
        int32_t mode;
    } cases[] = {
        {"com.example.game.ui", "com.example.game.upload", 0},
        {"com.example.live.ui", "com.example.live.samples", 1},
        {"com.example.odd.ui", "com.example.odd.upload", 0},
        {"com.example.share.ui", "", 0},  // another extension point
        {"com.unknown.game.ui", "", 0},
        {"nodot", "", 0},  // empty base: nothing
    };
    for (const auto& c : cases) {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
        std::string found;
        int32_t mode = -1;
        SVRecordingManager::loadBroadcastUploadExtensionWithBaseIdentifier(
            SVRecordingManager::broadcastBaseIdentifier(c.named),
            [&](std::shared_ptr<AppExtension> e, int32_t m) {
                std::lock_guard lock(mutex);
                found = e->identifier();
                mode = m;
                done = true;
                cv.notify_all();
            },
            [&] {
                std::lock_guard lock(mutex);
                done = true;
                cv.notify_all();
            });
        std::unique_lock lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, 10s, [&] { return done; })) << c.named;
        EXPECT_EQ(found, c.found) << c.named;
        if (!c.found.empty()) {
            EXPECT_EQ(mode, c.mode) << c.named;
            EXPECT_EQ(fs::path(extension(found)->bundlePath()).parent_path(),
                      fs::path(first_.path()))
                << "the first bundle of an identifier wins";
        }
    }
}

TEST_F(ExtensionTest, RequestHandsOverItemsAndExactlyTheGrantedFileReadOnly) {
    bundle(first_, "echo", "com.example.test.echo", kBroadcastServicesExtensionPoint);
    const std::string fragment = store_ / "SVMovie_x_1.mp4";
    test::writeFile(fragment, "fragment bytes");
    test::writeFile(store_ / "other.mp4", "another movie");
    // The first round opens what the process keeps (the IPC thread's
    // descriptors); the second must leave nothing behind.
    size_t descriptorsBefore = 0;
    for (int round = 0; round < 2; ++round) {
        if (round == 1) descriptorsBefore = test::openDescriptorCount();
        pid_t pid = -1;
        {
            auto echo = extension("com.example.test.echo");
            ASSERT_TRUE(echo);
            echo->setInaccessibleDirectories({store_.path()});
            Outcome outcome;
            outcome.watch(*echo);
            for (int i = 0; i < 2; ++i) {
                auto token =
                    FileAccessToken::issueForPath(fragment, "org.sorvel.sorveld.read-only");
                ASSERT_TRUE(token);
                echo->beginExtensionRequestWithInputItems(
                    {ExtensionItem::itemWithTitle("flag", "0"),
                     ExtensionItem::itemWithTitle("token", token->string()),
                     // The store is closed but for the grant; the rest is open.
                     ExtensionItem::itemWithTitle("probe", fragment),
                     ExtensionItem::itemWithTitle("probe", store_ / "other.mp4"),
                     ExtensionItem::itemWithTitle("probe", first_ / "echo/bundle.json")},
                    {token}, outcome.onBegin());
                ASSERT_TRUE(outcome.ended(size_t(i)));
                if (i == 0) pid = echo->pidForRunningProcess();
                EXPECT_EQ(echo->pidForRunningProcess(), pid) << "the running process is reused";
                std::lock_guard lock(outcome.mutex);
                ASSERT_FALSE(outcome.beginError);
                const auto& items = outcome.completed[outcome.begun[size_t(i)]];
                auto titles = itemTitled(items, "titles");
                ASSERT_TRUE(titles);
                EXPECT_EQ(titles->attachment, Value({"flag", "token", "probe", "probe", "probe"}));
                if (fileSystemSandboxVersion() > 0) {
                    EXPECT_EQ(itemTitled(items, "opened")->attachment, Value({false, false, true}));
                }
                EXPECT_EQ(itemTitled(items, "flag")->attachment, "0");
                EXPECT_EQ(std::count_if(items.begin(), items.end(),
                                        [](const auto& item) { return item.title == "content"; }),
                          1)
                    << "one file granted, one file readable";
                ASSERT_TRUE(itemTitled(items, "content"));
                EXPECT_EQ(itemTitled(items, "token")->attachment, token->string());
                const Bytes* content = bytesOf(itemTitled(items, "content")->attachment);
                ASSERT_TRUE(content);
                EXPECT_EQ(std::string(content->begin(), content->end()), "fragment bytes");
                EXPECT_EQ(itemTitled(items, "writable")->attachment, false);
            }
            EXPECT_TRUE(fs::exists(fragment));
            echo->_kill(SIGKILL);
            EXPECT_TRUE(test::eventually([&] { return reaped(pid); }, 10s));
        }
    }
    EXPECT_TRUE(
        test::eventually([&] { return test::openDescriptorCount() <= descriptorsBefore; }, 5s))
        << test::openDescriptorCount() << " descriptors open, " << descriptorsBefore << " before";
}

TEST_F(ExtensionTest, ExtensionThatDiesOrNeverConnectsBreaksItsRequestAndIsReaped) {
    bundle(first_, "crash", "com.example.test.crash", kBroadcastServicesExtensionPoint);
    bundle(first_, "mute", "com.example.test.mute", kBroadcastServicesExtensionPoint);
    bundle(first_, "gone", "com.example.test.gone", kBroadcastServicesExtensionPoint);
    fs::remove(first_ / "gone/bin/extension");
    struct Case {
        std::string identifier;
        int64_t code;
    } cases[] = {{"com.example.test.crash", kExtensionErrorEnded},
                 {"com.example.test.mute", kExtensionErrorNotConnected}};
    for (const auto& c : cases) {
        auto e = extension(c.identifier);
        ASSERT_TRUE(e);
        Outcome outcome;
        outcome.watch(*e);
        std::vector<pid_t> pids;
        for (size_t i = 0; i < 2; ++i) {
            e->beginExtensionRequestWithInputItems({ExtensionItem::itemWithTitle("x", 1)}, {},
                                                   outcome.onBegin());
            pids.push_back(e->pidForRunningProcess());
            ASSERT_TRUE(outcome.ended(i, kExtensionConnectTimeout + 10s)) << c.identifier;
            std::lock_guard lock(outcome.mutex);
            EXPECT_TRUE(outcome.completed.empty());
            ASSERT_EQ(outcome.broken.count(outcome.begun[i]), 1u);
            EXPECT_EQ(outcome.broken.at(outcome.begun[i]).code, c.code) << c.identifier;
        }
        EXPECT_NE(pids[0], pids[1]) << "a broken extension is started again";
        for (pid_t pid : pids) EXPECT_TRUE(test::eventually([&] { return reaped(pid); }, 10s));
    }
    // Nothing to start: the begin itself fails, and no request exists.
    auto gone = extension("com.example.test.gone");
    ASSERT_TRUE(gone);
    Outcome outcome;
    outcome.watch(*gone);
    gone->beginExtensionRequestWithInputItems({}, {}, outcome.onBegin());
    std::unique_lock lock(outcome.mutex);
    ASSERT_TRUE(outcome.cv.wait_for(lock, 10s, [&] { return !outcome.begun.empty(); }));
    ASSERT_TRUE(outcome.beginError);
    EXPECT_EQ(outcome.beginError->code, kExtensionErrorCannotStart);
    EXPECT_EQ(outcome.begun[0], "");
}

}  // namespace
