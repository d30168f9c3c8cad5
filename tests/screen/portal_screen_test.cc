// The portal screen backend against a private Wayland desktop (headless
// sway, PipeWire, the desktop portal and its wlroots backend): what a
// recording shows and at what size and rate, a portal that refuses, and a
// compositor that goes away mid-recording; and the screen-cast stream's
// DMA-BUF negotiation against a producer of memfds standing in for a GPU's
// buffers (no GPU here).
#include <gtest/gtest.h>
#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/screen/pipewire_stream.h"
#include "platform/screen/portal_screen.h"
#include "platform/screen/testing/wayland_desktop.h"
#include "tests/process/process_helpers.h"
#include "tests/screen/screen_test_util.h"
#include "tests/screen/wayland_test_desktop.h"

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
    // Starts a desktop and connects the backend to it (see startWaylandDesktop).
    void startDesktop(WaylandDesktop::Options options = {}) {
        ASSERT_NO_FATAL_FAILURE(test::startWaylandDesktop(desktop, options));
        if (IsSkipped()) return;
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

// The output in its colour at its size and rate, again after a stop; then
// the compositor dies mid-recording: the run ends once with "source gone"
// and nothing follows; once the session has started it again, the next run
// records.
TEST_F(PortalScreenTest, RecordsTheOutputAgainAfterAStopAndAfterTheCompositorCameBack) {
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
        ASSERT_TRUE(frame) << "failures " << recorder->failureCount() << desktop->logs();
        EXPECT_EQ(std::pair(frame->imageBuffer()->width(), frame->imageBuffer()->height()),
                  std::pair(640, 480));
        // A still desktop sends few pictures: the last one repeats at the
        // recording's rate, on one increasing timeline.
        ASSERT_TRUE(recorder->waitForFrames(recorder->frameCount() + 30));
        controller->stopCapture();
        auto frames = recorder->frames();
        for (size_t i = before + 1; i < frames.size(); ++i)
            ASSERT_GT(frames[i].presentationTime, frames[i - 1].presentationTime) << i;
        EXPECT_EQ(recorder->failureCount(), 0u);
    }
    EXPECT_EQ(backend->displaySize(), (WindowSize{640, 480}));

    controller->startCapture();
    ASSERT_TRUE(recorder->waitForFrames(recorder->frameCount() + 10)) << desktop->logs();
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

// A producer on the desktop's PipeWire of 320x240 BGRx pictures of
// kProducerColour, offered as DMA-BUFs (choosing LINEAR, as the allocating
// side does) and in shared memory. Its DMA-BUFs are memfds, which PipeWire
// passes on as it would a GPU's; `shortDmaBufs` makes each claim twice its
// size. Callbacks on its loop thread; the rest on the test's.
constexpr uint32_t kProducerColour = 0x20C040;
struct TestProducer {
    static constexpr int32_t kW = 320, kH = 240, kBytes = kW * kH * 4;
    ~TestProducer() {
        if (loop) pw_thread_loop_stop(loop);
        if (stream) pw_stream_destroy(stream);
        if (core) pw_core_disconnect(core);
        if (context) pw_context_destroy(context);
        if (loop) pw_thread_loop_destroy(loop);
    }
    // DMA-BUFs of the linear layout (fixed, or left for the producer to
    // fix) or shared memory.
    static const spa_pod* format(spa_pod_builder* b, bool dmabuf, bool fixed) {
        spa_rectangle size{kW, kH};
        spa_fraction rate{30, 1};
        spa_pod_frame f, choice;
        spa_pod_builder_push_object(b, &f, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
        spa_pod_builder_add(b, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                            SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
                            SPA_FORMAT_VIDEO_format, SPA_POD_Id(SPA_VIDEO_FORMAT_BGRx),
                            SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
                            SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate), 0);
        if (dmabuf) {
            spa_pod_builder_prop(
                b, SPA_FORMAT_VIDEO_modifier,
                SPA_POD_PROP_FLAG_MANDATORY | (fixed ? 0 : SPA_POD_PROP_FLAG_DONT_FIXATE));
            spa_pod_builder_push_choice(b, &choice, SPA_CHOICE_Enum, 0);
            spa_pod_builder_long(b, 0);  // LINEAR, the default and the one value
            spa_pod_builder_long(b, 0);
            spa_pod_builder_pop(b, &choice);
        }
        return static_cast<const spa_pod*>(spa_pod_builder_pop(b, &f));
    }
    void paramChanged(const spa_pod* param) {
        uint8_t buffer[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod_prop* m = spa_pod_find_prop(param, nullptr, SPA_FORMAT_VIDEO_modifier);
        if (m && (m->flags & SPA_POD_PROP_FLAG_DONT_FIXATE)) {
            const spa_pod* offer[] = {format(&b, true, true), format(&b, false, false)};
            pw_stream_update_params(stream, offer, 2);
            return;
        }
        const auto* buffers = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_Int(4), SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int(1 << (m ? SPA_DATA_DmaBuf : SPA_DATA_MemFd))));
        pw_stream_update_params(stream, &buffers, 1);
    }
    void addBuffer(pw_buffer* buffer) {
        spa_data& d = buffer->buffer->datas[0];
        const bool dmabuf = d.type & (1 << SPA_DATA_DmaBuf);
        UniqueFd memory(memfd_create("sv-test-producer", MFD_CLOEXEC));
        void* pixels = MAP_FAILED;
        if (ftruncate(memory.get(), kBytes) == 0)
            pixels = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
        if (pixels == MAP_FAILED) return;
        std::fill_n(static_cast<uint32_t*>(pixels), kW * kH, 0xFF000000u | kProducerColour);
        munmap(pixels, kBytes);
        d.type = dmabuf ? SPA_DATA_DmaBuf : SPA_DATA_MemFd;
        d.fd = memory.release();  // closed by PipeWire with the buffer
        d.flags = SPA_DATA_FLAG_READABLE;
        d.mapoffset = 0;
        d.maxsize = dmabuf && shortDmaBufs ? 2 * kBytes : kBytes;
        d.chunk->size = kBytes;
        d.chunk->stride = kW * 4;
        if (dmabuf) ++dmabufs;
    }
    bool shortDmaBufs = false;
    std::atomic<uint32_t> node{SPA_ID_INVALID};
    std::atomic<int> dmabufs{0};
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_source* timer = nullptr;
    spa_hook listener{};
};

// DMA-BUFs are read where the producer gives them, and a producer whose
// DMA-BUFs cannot be read is asked for shared memory instead: the picture
// arrives either way.
TEST_F(PortalScreenTest, ReadsDMABUFsWhereOfferedAndFallsBackToSharedMemory) {
    ASSERT_NO_FATAL_FAILURE(startDesktop());
    if (IsSkipped()) return;
    const std::string pipewire = desktop->directory() + "/run/pipewire-0";
    for (const bool shortDmaBufs : {false, true}) {
        SCOPED_TRACE(shortDmaBufs ? "DMA-BUFs shorter than they claim" : "DMA-BUFs");
        pw_init(nullptr, nullptr);
        TestProducer p;
        p.shortDmaBufs = shortDmaBufs;
        p.loop = pw_thread_loop_new("sv-test-producer", nullptr);
        ASSERT_TRUE(p.loop);
        p.context = pw_context_new(pw_thread_loop_get_loop(p.loop), nullptr, 0);
        ASSERT_TRUE(p.context && pw_thread_loop_start(p.loop) == 0);
        pw_thread_loop_lock(p.loop);
        p.core = pw_context_connect(
            p.context, pw_properties_new(PW_KEY_REMOTE_NAME, pipewire.c_str(), nullptr), 0);
        p.stream =
            p.core ? pw_stream_new(p.core, "sv-test-producer",
                                   pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", nullptr))
                   : nullptr;
        // A picture every 30 ms, once streaming.
        p.timer = pw_loop_add_timer(
            pw_thread_loop_get_loop(p.loop),
            [](void* data, uint64_t) {
                auto* self = static_cast<TestProducer*>(data);
                if (pw_buffer* b = pw_stream_dequeue_buffer(self->stream))
                    pw_stream_queue_buffer(self->stream, b);
            },
            &p);
        static const pw_stream_events events = {
            .version = PW_VERSION_STREAM_EVENTS,
            .state_changed =
                [](void* data, pw_stream_state, pw_stream_state state, const char*) {
                    auto* self = static_cast<TestProducer*>(data);
                    self->node = pw_stream_get_node_id(self->stream);
                    timespec first{0, 1}, every{0, 30'000'000};
                    if (state == PW_STREAM_STATE_STREAMING)
                        pw_loop_update_timer(pw_thread_loop_get_loop(self->loop), self->timer,
                                             &first, &every, false);
                },
            .param_changed =
                [](void* data, uint32_t id, const spa_pod* param) {
                    if (id == SPA_PARAM_Format && param)
                        static_cast<TestProducer*>(data)->paramChanged(param);
                },
            .add_buffer = [](void* data,
                             pw_buffer* b) { static_cast<TestProducer*>(data)->addBuffer(b); },
        };
        uint8_t buffer[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(buffer, sizeof(buffer));
        const spa_pod* offer[] = {TestProducer::format(&b, true, false),
                                  TestProducer::format(&b, false, false)};
        const bool connected = p.stream && p.timer &&
                               (pw_stream_add_listener(p.stream, &p.listener, &events, &p),
                                pw_stream_connect(p.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                                  pw_stream_flags(PW_STREAM_FLAG_DRIVER |
                                                                  PW_STREAM_FLAG_ALLOC_BUFFERS),
                                                  offer, 2) == 0);
        pw_thread_loop_unlock(p.loop);
        ASSERT_TRUE(connected);
        ASSERT_TRUE(test::eventually([&] { return p.node != SPA_ID_INVALID; }, 10s));

        UniqueFd remote(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, pipewire.c_str(), sizeof(address.sun_path) - 1);
        ASSERT_EQ(connect(remote.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        auto box = std::make_shared<FrameBox>();
        auto consumer = PipeWireStream::open(std::move(remote), p.node, TestProducer::kW,
                                             TestProducer::kH, MediaTime::make(1, 30), box);
        ASSERT_TRUE(consumer) << consumer.error().message();
        auto latest = [&] {
            std::lock_guard lock(box->mutex);
            return box->latest;
        };
        EXPECT_TRUE(test::eventually(
            [&] {
                auto s = latest();
                return s && test::pixelAt(*s, 160, 120) == (0xFF000000u | kProducerColour);
            },
            15s))
            << desktop->logs();
        // DMA-BUFs were negotiated first; short ones could only be shown through
        // shared memory.
        EXPECT_GT(p.dmabufs.load(), 0);
        consumer->reset();
    }
}

}  // namespace
}  // namespace sv
