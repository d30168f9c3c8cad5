// examples/x11-recorder on a private X server, against a scripted daemon:
// it records its own window (the X window id as the layer context), reports
// itself active and resigned as the keyboard focus comes and goes, and stops
// when its window is closed.
#include <xcb/xcb.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "platform/screen/testing/xvfb_server.h"
#include "platform/url.h"
#include "protocol/recording_protocol.h"
#include "protocol/service_names.h"
#include "tests/client/cli_helpers.h"
#include "tests/client/fake_service.h"
#include "tests/process/process_helpers.h"
#include "tests/support/test_util.h"

using namespace sv;
using namespace std::chrono_literals;
using sv::test::FakeService;

namespace {

constexpr const char* kBecomeActive = method::kClientDidBecomeActive;
constexpr const char* kResignActive = method::kClientDidResignActive;

struct XcbDisconnect {
    void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};

TEST(X11ExampleTest, RecordsItsWindowAndFollowsTheFocus) {
    if (!sv::testing::XvfbServer::available()) GTEST_SKIP() << "no Xvfb";
    auto started = sv::testing::XvfbServer::start(800, 600);
    ASSERT_TRUE(started) << started.error().message();
    auto x = std::move(*started);
    std::string dir = sv::test::makeTempDir("sv-x11-example-");
    ipc::setRuntimeDirectory(dir);
    std::string movie = dir + "/store/movie.mp4", output = dir + "/example.mp4";
    sv::test::writeFile(movie, "movie");
    std::string url = URL::fileURLWithPath(movie).absoluteString();
    auto daemon = FakeService::start(
        kDaemonServiceName, daemonProtocolInterface(), clientProtocolInterface(),
        [url](const FakeService::Call& c) {
            if (c.method.rfind("startRecording", 0) == 0)
                c.reply(ipc::Arguments().addNull().add(Value(false)).add(Value(false)));
            if (c.method == "stopRecordingWithHandler:")
                c.reply(ipc::Arguments().add(Value(url)).addNull());
        });
    ASSERT_TRUE(daemon);

    std::string log = dir + "/example.log";
    pid_t child =
        sv::test::spawnProcess({std::string(X11_RECORDER), "--seconds", "600", "-o", output},
                               {"DISPLAY=" + x->displayName(), "SORVEL_RUNTIME_DIR=" + dir}, log);
    auto start = daemon->waitForCall(method::kStartRecording);
    ASSERT_TRUE(start) << sv::test::readFile(log);
    ASSERT_EQ(start->args[0].size(), 1u);
    auto window = start->args[0][0].get<uint32_t>();
    EXPECT_EQ(start->args[1], Value({{"width", 640.0}, {"height", 360.0}}));
    auto active = daemon->waitForCall(kBecomeActive);
    ASSERT_TRUE(active);
    EXPECT_EQ(active->args[0], "org.sorvel.example.x11-recorder");  // from its bundle

    std::unique_ptr<xcb_connection_t, XcbDisconnect> c(
        xcb_connect(x->displayName().c_str(), nullptr));
    ASSERT_FALSE(xcb_connection_has_error(c.get()));
    // The layer context is the example's own, mapped window.
    auto attributes = xcb_get_window_attributes_reply(
        c.get(), xcb_get_window_attributes(c.get(), window), nullptr);
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->map_state, XCB_MAP_STATE_VIEWABLE);
    std::free(attributes);

    xcb_set_input_focus(c.get(), XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
    xcb_flush(c.get());
    EXPECT_TRUE(daemon->waitForCall(kBecomeActive, 1));
    xcb_set_input_focus(c.get(), XCB_INPUT_FOCUS_POINTER_ROOT, XCB_NONE, XCB_CURRENT_TIME);
    xcb_flush(c.get());
    EXPECT_TRUE(daemon->waitForCall(kResignActive));

    // Closing the window as a window manager would stops the recording.
    auto atom = [&](const char* name) {
        auto* r = xcb_intern_atom_reply(
            c.get(), xcb_intern_atom(c.get(), 0, uint16_t(std::strlen(name)), name), nullptr);
        xcb_atom_t a = r ? r->atom : xcb_atom_t(XCB_ATOM_NONE);
        std::free(r);
        return a;
    };
    xcb_client_message_event_t close{};
    close.response_type = XCB_CLIENT_MESSAGE;
    close.format = 32;
    close.window = window;
    close.type = atom("WM_PROTOCOLS");
    close.data.data32[0] = atom("WM_DELETE_WINDOW");
    close.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(c.get(), 0, window, XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<const char*>(&close));
    xcb_flush(c.get());
    EXPECT_EQ(sv::test::waitForExit(child, 60s), 0) << sv::test::readFile(log);
    EXPECT_TRUE(daemon->waitForCall("stopRecordingWithHandler:"));
    EXPECT_EQ(sv::test::readFile(output), "movie");
    EXPECT_NE(sv::test::readFile(log).find(output), std::string::npos);
    daemon->die();
    std::filesystem::remove_all(dir);
}

}  // namespace
