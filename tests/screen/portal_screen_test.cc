// The portal screen backend against a private Wayland desktop (headless
// sway, PipeWire, the desktop portal and its wlroots backend): what a
// recording shows and at what size and rate, a portal that refuses, and a
// compositor that goes away mid-recording; and the mapping of a DMA-BUF
// picture, a memfd standing in for the buffer (no GPU here).
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/screen/pipewire_stream.h"
#include "platform/screen/portal_screen.h"
#include "platform/screen/testing/wayland_desktop.h"
#include "tests/process/process_helpers.h"
#include "tests/screen/screen_test_util.h"

namespace sv {
namespace {

using namespace std::chrono_literals;
using test::pixelAt;
using test::Recorder;
using testing::WaylandDesktop;

constexpr uint32_t kColour = 0x3080C0;

bool near(uint32_t a, uint32_t b) {
    for (int shift = 0; shift < 32; shift += 8)
        if (std::abs(int((a >> shift) & 0xFF) - int((b >> shift) & 0xFF)) > 4) return false;
    return true;
}

class PortalScreenTest : public ::testing::Test {
  protected:
    // Starts a desktop; the test is skipped (IsSkipped()) where the stack is
    // not installed or cannot start, except under CI=true where it fails.
    void startDesktop(WaylandDesktop::Options options = {}) {
        const char* ci = std::getenv("CI");
        const bool inCI = ci && std::string(ci) == "true";
        if (!WaylandDesktop::available()) {
            if (inCI) FAIL() << "sway or the desktop portal is missing (scripts/install-deps.sh)";
            GTEST_SKIP() << "sway or the desktop portal is not installed: the portal backend is "
                            "not tested here (scripts/install-deps.sh installs them)";
        }
        auto started = WaylandDesktop::start(options);
        if (!started && !inCI)
            GTEST_SKIP() << "no private Wayland desktop here: " << started.error().message();
        ASSERT_TRUE(started) << started.error().message();
        desktop = std::move(*started);
        tokenPath = desktop->directory() + "/state/screencast-restore-token";
        auto connected = PortalScreenBackend::connect(
            {.busAddress = desktop->busAddress(), .restoreTokenPath = tokenPath});
        ASSERT_TRUE(connected) << connected.error().message() << desktop->logs();
        backend = *connected;
        backend->mirroringService()->setCloneMirroringMode(kCloneMirroringModeMirror);
    }

    std::shared_ptr<ScreenCaptureController> make(WindowSize size) {
        recorder = std::make_shared<Recorder>(1);
        auto c = backend->makeCaptureController(size, MediaTime::make(1, 60));
        c->setDelegate(recorder);
        return c;
    }

    std::unique_ptr<WaylandDesktop> desktop;
    std::string tokenPath;
    std::shared_ptr<PortalScreenBackend> backend;
    std::shared_ptr<Recorder> recorder;
};

TEST_F(PortalScreenTest, RecordsTheOutputInItsColourAtItsSizeAndRateAgainAfterAStop) {
    ASSERT_NO_FATAL_FAILURE(startDesktop());
    if (IsSkipped()) return;
    auto controller = make({640, 480});
    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run == 0 ? "first run" : "started again");
        const size_t before = recorder->frameCount();
        controller->startCapture();
        auto frame = recorder->waitForFrame([](const SharedSurface& s) {
            return near(pixelAt(s, 320, 240), 0xFF000000u | kColour) &&
                   near(pixelAt(s, 2, 2), 0xFF000000u | kColour);
        });
        if (!frame) {
            auto last = recorder->lastSample();
            if (last && last->imageBuffer())
                ADD_FAILURE() << std::hex << "last frame: centre "
                              << pixelAt(*last->imageBuffer(), 320, 240) << ", corner "
                              << pixelAt(*last->imageBuffer(), 2, 2);
        }
        ASSERT_TRUE(frame) << "failures " << recorder->failureCount() << desktop->logs();
        EXPECT_EQ(frame->imageBuffer()->width(), 640);
        EXPECT_EQ(frame->imageBuffer()->height(), 480);
        // A still desktop sends few pictures: the last one repeats at the
        // recording's rate, on one increasing timeline.
        ASSERT_TRUE(recorder->waitForFrames(recorder->frameCount() + 30));
        controller->stopCapture();
        auto frames = recorder->frames();
        for (size_t i = before + 1; i < frames.size(); ++i)
            ASSERT_GT(frames[i].presentationTime, frames[i - 1].presentationTime) << i;
        EXPECT_EQ(recorder->failureCount(), 0u);
    }
    EXPECT_EQ(backend->displaySize().width, 640);
    EXPECT_EQ(backend->displaySize().height, 480);
}

// The portal's two ways of saying no, each ending the run once with its
// status and no frame: the user cancelling (here the backend finds no output
// of the configured name, which it reports as a cancelled choice) and the
// portal refusing (the packaged backend without the shim refuses Start).
TEST_F(PortalScreenTest, ACancelledOrRefusedPortalRequestFailsTheRunWithItsStatus) {
    struct Case {
        const char* name;
        WaylandDesktop::Options options;
        int32_t status;
    };
    const Case cases[] = {
        {"cancelled", {.outputName = "NOPE-1"}, kScreenCaptureUserDeclined},
        {"refused", {.screencopyShim = false}, kScreenCaptureGrabFailed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NO_FATAL_FAILURE(startDesktop(c.options));
        if (IsSkipped()) return;
        auto controller = make({640, 480});
        controller->startCapture();
        ASSERT_TRUE(recorder->waitForFailures(1)) << desktop->logs();
        EXPECT_EQ(recorder->failedStatuses(), std::vector<int32_t>{c.status});
        EXPECT_EQ(recorder->frameCount(), 0u);
        EXPECT_FALSE(controller->isCapturing());
        controller.reset();
        backend.reset();
        desktop.reset();
    }
}

// The compositor dies mid-recording: the run ends once with "source gone"
// and nothing follows; once the session has started it again, the next
// run records.
TEST_F(PortalScreenTest, ACompositorThatGoesAwayEndsTheRunAndTheNextRunRecordsItsSuccessor) {
    ASSERT_NO_FATAL_FAILURE(startDesktop());
    if (IsSkipped()) return;
    auto controller = make({640, 480});
    controller->startCapture();
    ASSERT_TRUE(recorder->waitForFrames(10)) << desktop->logs();
    ASSERT_TRUE(desktop->killCompositor());
    ASSERT_TRUE(recorder->waitForFailures(1)) << desktop->logs();
    EXPECT_EQ(recorder->failedStatuses(), std::vector<int32_t>{kScreenCaptureSourceGone});
    EXPECT_FALSE(controller->isCapturing());
    const size_t frames = recorder->frameCount();
    EXPECT_TRUE(test::stays([&] { return recorder->frameCount() != frames; }, 500ms));

    ASSERT_TRUE(desktop->restartCompositor()) << desktop->logs();
    controller->startCapture();
    EXPECT_TRUE(recorder->waitForFrames(frames + 10)) << desktop->logs();
    EXPECT_EQ(recorder->failureCount(), 1u);
}

// A buffer is read whole where it holds what its picture claims, and refused,
// never read past its end, where it is shorter or no buffer at all.
TEST(DmaBufMappingTest, ReadsABufferThatHoldsThePictureAndRefusesOneThatIsShorter) {
    UniqueFd memory(memfd_create("sv-test-dmabuf", MFD_CLOEXEC));
    ASSERT_TRUE(memory.valid());
    std::vector<uint8_t> bytes(8192);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7);
    ASSERT_EQ(write(memory.get(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
    const struct {
        int fd;
        size_t size;
        bool maps;
    } cases[] = {{memory.get(), 8192, true},
                 {memory.get(), 100, true},
                 {memory.get(), 8193, false},
                 {memory.get(), 0, false},
                 {-1, 16, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.fd << " " << c.size);
        auto mapping = DmaBufMapping::map(c.fd, c.size);
        ASSERT_EQ(bool(mapping), c.maps);
        if (!mapping) continue;
        std::vector<uint8_t> read;
        ASSERT_TRUE(mapping->read(
            [&](const uint8_t* data, size_t size) { read.assign(data, data + size); }));
        EXPECT_EQ(read, std::vector<uint8_t>(bytes.begin(), bytes.begin() + c.size));
    }
}

}  // namespace
}  // namespace sv
