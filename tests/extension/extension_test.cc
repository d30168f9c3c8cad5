// Installed extensions and extension requests through real extension
// processes (tests/extension/test_extension.cc), and the broadcast lookup
// of the recording manager on top of them.
#include <signal.h>

#include <filesystem>

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

// What the handlers of one extension handle received, in order: each
// request's identifier and error as it began, and how each ended (its items,
// or the error that broke it).
struct Outcome {
    struct Ended {
        std::string id;
        std::vector<ExtensionItem> items;
        OptionalError error;
    };
    test::Collected<std::pair<std::string, OptionalError>> begun;
    test::Collected<Ended> ended;

    void watch(AppExtension& extension) {
        extension.setRequestCompletionBlock(
            [this](const std::string& id, std::vector<ExtensionItem> items) {
                end({id, std::move(items), std::nullopt});
            });
        extension.setRequestCancellationBlock([this](const std::string& id, const Error& error) {
            end({id, {}, error});
        });
    }
    AppExtension::BeginCompletion onBegin() {
        return [this](std::string id, OptionalError error) { begun.add({id, error}); };
    }
    // How request `index` ended, once it began and ended (bounded wait).
    std::optional<Ended> ending(size_t index, std::chrono::milliseconds timeout = 20s) {
        if (!begun.waitFor(index + 1, timeout) || !ended.waitFor(index + 1, timeout))
            return std::nullopt;
        Ended e = ended.all()[index];
        EXPECT_EQ(e.id, begun.all()[index].first);
        return e;
    }

  private:
    void end(Ended e) {
        for (const auto& seen : ended.all()) EXPECT_NE(seen.id, e.id) << "finished twice";
        ended.add(std::move(e));
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
        SCOPED_TRACE(c.named);
        const auto found = test::awaitOnce<std::pair<std::string, int32_t>>([&](auto done) {
            SVRecordingManager::loadBroadcastUploadExtensionWithBaseIdentifier(
                SVRecordingManager::broadcastBaseIdentifier(c.named),
                [done](std::shared_ptr<AppExtension> e, int32_t m) {
                    done({e->identifier(), m});
                },
                [done] {
                    done({"", 0});
                });
        });
        EXPECT_EQ(found, std::make_pair(c.found, c.mode));
        if (!c.found.empty()) {
            EXPECT_EQ(fs::path(extension(c.found)->bundlePath()).parent_path(),
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
                auto ended = outcome.ending(size_t(i));
                ASSERT_TRUE(ended);
                if (i == 0) pid = echo->pidForRunningProcess();
                EXPECT_EQ(echo->pidForRunningProcess(), pid) << "the running process is reused";
                ASSERT_FALSE(outcome.begun.all()[size_t(i)].second);
                ASSERT_FALSE(ended->error);
                // What the extension got, then the one granted file's token,
                // content (one file readable) and writability, then which of
                // the probes it could open.
                Value got = Value::array();
                for (const auto& item : ended->items)
                    got.push_back(Value::array({item.title, item.attachment}));
                const std::string bytes = "fragment bytes";
                const bool sandboxed = fileSystemSandboxVersion() > 0;
                EXPECT_EQ(got, Value::array({
                                   {"titles", {"flag", "token", "probe", "probe", "probe"}},
                                   {"flag", "0"},
                                   {"token", token->string()},
                                   {"probe", fragment},
                                   {"probe", store_ / "other.mp4"},
                                   {"probe", first_ / "echo/bundle.json"},
                                   {"token", token->string()},
                                   {"content", bytesValue(Bytes(bytes.begin(), bytes.end()))},
                                   {"writable", false},
                                   {"opened", {!sandboxed, !sandboxed, true}},
                               }));
                EXPECT_EQ(itemTitled(ended->items, "probe"), ended->items.data() + 3)
                    << "the first";
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
            auto ended = outcome.ending(i, kExtensionConnectTimeout + 10s);
            ASSERT_TRUE(ended && ended->error) << c.identifier;
            EXPECT_EQ(ended->error->code, c.code) << c.identifier;
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
    ASSERT_TRUE(outcome.begun.waitFor(1, 10s));
    const auto [id, error] = outcome.begun.all()[0];
    EXPECT_EQ(id, "");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, kExtensionErrorCannotStart);
}

}  // namespace
