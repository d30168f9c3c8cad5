// docs/ipc-wire-format.md is enough to speak the recording protocols: a
// Python peer written from it plays an application and a consent agent.
#include <filesystem>

#include <gtest/gtest.h>

#include "client/shell_channel.h"
#include "platform/url.h"
#include "protocol/recording_protocol.h"
#include "tests/client/fake_service.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::FakeService;

namespace {

class PythonPeerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "no python3";
        ipc::setRuntimeDirectory(dir_);
    }
    void TearDown() override {
        if (service_) service_->die();
    }
    pid_t peer(const char* mode, const char* service) {
        return sv::test::spawnProcess(
            {"/usr/bin/python3", std::string(CLIENT_TEST_SOURCE_DIR) + "/python_recording_peer.py",
             mode, ipc::servicePath(service)});
    }
    sv::test::TempDir tmp_;
    const std::string& dir_ = tmp_.path();
    std::shared_ptr<FakeService> service_;
};

TEST_F(PythonPeerTest, AnApplicationStartsIsInterruptedAndStops) {
    service_ = FakeService::start(
        kDaemonServiceName, daemonProtocolInterface(), clientProtocolInterface(),
        [](const FakeService::Call& c) {
            if (c.method == method::kStartRecording)
                c.reply(ipc::Arguments().addNull().add(Value(true)).add(Value(false)));
            if (c.method == method::kStopRecordingWithClip)
                c.reply(ipc::Arguments().addNull().add(
                    sv::test::recordingError(-5804, "Failed during recording").toValue()));
        });
    ASSERT_TRUE(service_);
    pid_t child = peer("client", kDaemonServiceName);
    auto start = service_->waitForCall(method::kStartRecording);
    ASSERT_TRUE(start);
    EXPECT_EQ(start->pid, child);
    EXPECT_EQ(start->args[0], Value::array({3, 4}));
    service_->callBack(
        "stopRecordingWithError:movieURL:",
        ipc::Arguments()
            .add(sv::test::recordingError(
                     -5807, "Recording interrupted by multitasking and content resizing")
                     .toValue())
            .add(Value(URL::fileURLWithPath("/tmp/interrupted movie.mp4").absoluteString())));
    EXPECT_EQ(sv::test::waitForExit(child, 20s), 0);
    EXPECT_EQ(service_->methods().front(), method::kClientDidBecomeActive);
}

TEST_F(PythonPeerTest, AConsentAgentRegistersAndAnswers) {
    service_ = FakeService::start(kShellServiceName, shellChannelInterface(),
                                  consentAgentProtocolInterface(), [](const FakeService::Call& c) {
                                      if (c.method.rfind("registerConsentAgent", 0) == 0)
                                          c.reply(ipc::Arguments().addNull());
                                  });
    ASSERT_TRUE(service_);
    pid_t child = peer("agent", kShellServiceName);
    auto registration =
        service_->waitForCall("registerConsentAgentWithPreferredLanguages:handler:");
    ASSERT_TRUE(registration);
    EXPECT_EQ(registration->args[0], Value::array({"fr-CA", "fr"}));
    Value alert = {{"title", "Autoriser ?"},
                   {"message", "…"},
                   {"defaultButton", "Refuser"},
                   {"alternateButton", "Enregistrer l’écran et le micro"},
                   {"otherButton", "Enregistrer l’écran uniquement"}};
    auto answer = sv::test::awaitOnce<std::string>([&](auto done) {
        service_->callBack("presentAlert:handler:", ipc::Arguments().add(alert),
                           [done](const ipc::Received& r) { done(r.at(0).dump()); });
    });
    EXPECT_EQ(answer, "\"alternate\"");
    service_->die();
    EXPECT_EQ(sv::test::waitForExit(child, 20s), 0);
}

}  // namespace
