// Process information, bundles, the notification centre and keep-alive
// transactions (the purgeable-space registry is driven through the daemon in
// tests/daemon).
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "platform/process/keep_alive.h"
#include "platform/process/notification_center.h"
#include "platform/process/process_info.h"
#include "platform/system/bundle.h"
#include "tests/process/process_helpers.h"

using namespace sv;
namespace fs = std::filesystem;

namespace {

TEST(ProcessInfoTest, ExecutablePathOfAProcess) {
    char buffer[kMaxProcessPathBytes];
    int n = processExecutablePath(getpid(), buffer, sizeof buffer);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buffer, n), fs::read_symlink("/proc/self/exe").string());
    EXPECT_EQ(processExecutablePath(0, buffer, sizeof buffer), 0);
    EXPECT_EQ(processExecutablePath(-5, buffer, sizeof buffer), 0);
    EXPECT_EQ(processExecutablePath(getpid(), buffer, 4),
              0);  // does not fit: nothing, not a cut path
    EXPECT_EQ(processExecutablePath(getpid(), nullptr, 100), 0);
}

TEST(ProcessInfoTest, EnclosingBundleIsTheInnermostDirectoryWithAManifest) {
    std::string root = sv::test::makeTempDir("sv-bundle-");
    fs::create_directories(root + "/Host.app/Extensions/Ext.appex/bin");
    std::ofstream(root + "/Host.app/bundle.json") << R"({"identifier": "org.example.host"})";
    std::ofstream(root + "/Host.app/Extensions/Ext.appex/bundle.json") << R"({"identifier": 42})";
    std::ofstream(root + "/Host.app/host") << "";

    auto host = enclosingBundleURL(URL::fileURLWithPath(root + "/Host.app/host"));
    ASSERT_TRUE(host);
    EXPECT_EQ(host->path, root + "/Host.app");
    EXPECT_EQ(Bundle::bundleWithPath(host->path)->bundleIdentifier(), "org.example.host");

    auto ext =
        enclosingBundleURL(URL::fileURLWithPath(root + "/Host.app/Extensions/Ext.appex/bin/ext"));
    ASSERT_TRUE(ext);
    EXPECT_EQ(ext->path, root + "/Host.app/Extensions/Ext.appex");
    EXPECT_FALSE(Bundle::bundleWithPath(ext->path)->bundleIdentifier());  // identifier is not text

    EXPECT_FALSE(enclosingBundleURL(URL::fileURLWithPath(root + "/elsewhere/tool")));
    EXPECT_FALSE(enclosingBundleURL(URL::fileURLWithPath("relative/tool")));
    fs::remove_all(root);
}

TEST(NotificationCenterTest, ObserversByNameAndRemoval) {
    NotificationCenter center;
    int a = 0, b = 0, all = 0;
    int ownerA, ownerB;
    center.addObserver(&ownerA, kLockButtonPressedNotification, [&](const Notification&) { ++a; });
    center.addObserver(&ownerB, "other", [&](const Notification&) { ++b; });
    center.addObserver(&ownerB, "", [&](const Notification&) { ++all; });
    center.post(kLockButtonPressedNotification);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 0);
    EXPECT_EQ(all, 1);
    center.removeObserver(&ownerB);
    center.post("other");
    EXPECT_EQ(b, 0);
    EXPECT_EQ(all, 1);
    // An observer may remove itself while being called.
    center.addObserver(&ownerB, "self", [&](const Notification&) {
        center.removeObserver(&ownerB);
        ++b;
    });
    center.post("self");
    center.post("self");
    EXPECT_EQ(b, 1);
}

TEST(KeepAliveTest, CountedTransactionsAndNoIdleExitWithoutSocketActivation) {
    auto& k = KeepAlive::shared();
    long base = k.openTransactionCount();
    k.beginTransaction();
    k.beginTransaction();
    k.endTransaction();
    EXPECT_EQ(k.openTransactionCount(), base + 1);
    k.endTransaction();
    k.endTransaction();  // unmatched: ignored
    EXPECT_EQ(k.openTransactionCount(), base);
    unsetenv("LISTEN_PID");
    EXPECT_FALSE(KeepAlive::startedBySocketActivation());
    EXPECT_FALSE(k.armIdleExit(std::chrono::milliseconds(1), nullptr, [] { FAIL(); }));
}

}  // namespace
