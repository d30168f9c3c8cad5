// x11-recorder: an X11 application that records its own window through the
// sorvel client library.
//
//   x11-recorder [--seconds N] [--mic] [-o FILE]
//
// It opens a window with a bouncing square, tells the service that it is
// active (and again whenever it gains or loses the keyboard focus), asks the
// service to record the window (its X window id is the layer context) for
// N seconds, stops, and prints where the movie is (copying it to FILE when
// given). q, Escape or closing the window stops early.
//
// The library's handlers arrive through an executor that hands them to this
// program's own event loop, so everything below runs on the main thread.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <sorvel/recorder_client.h>

namespace {

using Clock = std::chrono::steady_clock;

struct XcbDisconnect {
    void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};
using XcbConnection = std::unique_ptr<xcb_connection_t, XcbDisconnect>;
template <typename T>
using XcbReply = std::unique_ptr<T, decltype(&std::free)>;

// Tasks from the library's threads, run by the event loop.
class TaskQueue {
  public:
    TaskQueue() {
        if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
    }
    ~TaskQueue() {
        close(wake_[0]);
        close(wake_[1]);
    }
    void post(std::function<void()> task) {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        (void)!write(wake_[1], "x", 1);
    }
    int fd() const { return wake_[0]; }
    void runAll() {
        char buf[64];
        while (read(wake_[0], buf, sizeof buf) > 0) {
        }
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard lock(mutex_);
            tasks.swap(tasks_);
        }
        for (auto& t : tasks) t();
    }

  private:
    int wake_[2];
    std::mutex mutex_;
    std::deque<std::function<void()>> tasks_;
};

xcb_atom_t internAtom(xcb_connection_t* c, const char* name) {
    XcbReply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr),
        &std::free);
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

class App : public sv::SVRecorderClientDelegate {
  public:
    App(double seconds, bool microphone, std::string output)
        : seconds_(seconds), microphone_(microphone), output_(std::move(output)) {}

    int run(std::shared_ptr<App> self);

    // The service ended the recording (another application, the screen
    // shared, the device locked, ...): keep what it recorded.
    void stopRecordingWithError(const std::optional<sv::SVRecorderError>& error,
                                const std::optional<std::string>& moviePath) override {
        std::fprintf(stderr, "x11-recorder: recording ended: %s\n",
                     error ? error->description().c_str() : "without an error");
        finish(moviePath, 1);
    }

  private:
    bool openWindow();
    void draw();
    void startRecording();
    void stopRecording();
    void finish(const std::optional<std::string>& movie, int status);

    double seconds_;
    bool microphone_;
    std::string output_;
    TaskQueue tasks_;
    std::unique_ptr<sv::SVRecorderClient> client_;
    XcbConnection connection_;
    xcb_screen_t* screen_ = nullptr;
    xcb_window_t window_ = 0;
    xcb_gcontext_t background_ = 0, foreground_ = 0;
    xcb_atom_t protocols_ = XCB_ATOM_NONE, deleteWindow_ = XCB_ATOM_NONE;
    uint16_t width_ = 640, height_ = 360;
    int x_ = 20, y_ = 20, dx_ = 5, dy_ = 3;
    enum class State { Waiting, Starting, Recording, Stopping, Done } state_ = State::Waiting;
    bool stopWhenStarted_ = false;
    Clock::time_point stopAt_;
    std::optional<int> status_;
};

bool App::openWindow() {
    int screenNumber = 0;
    connection_.reset(xcb_connect(nullptr, &screenNumber));
    if (!connection_ || xcb_connection_has_error(connection_.get())) {
        std::fprintf(stderr, "x11-recorder: cannot open the X display (DISPLAY=%s)\n",
                     std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "");
        return false;
    }
    xcb_connection_t* c = connection_.get();
    auto it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; it.rem && i < screenNumber; ++i) xcb_screen_next(&it);
    screen_ = it.data;
    window_ = xcb_generate_id(c);
    uint32_t values[] = {screen_->black_pixel,
                         XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY |
                             XCB_EVENT_MASK_FOCUS_CHANGE | XCB_EVENT_MASK_KEY_PRESS};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window_, screen_->root, 0, 0, width_, height_, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
    const char* title = "sorvel x11-recorder";
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        uint32_t(std::strlen(title)), title);
    protocols_ = internAtom(c, "WM_PROTOCOLS");
    deleteWindow_ = internAtom(c, "WM_DELETE_WINDOW");
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, protocols_, XCB_ATOM_ATOM, 32, 1,
                        &deleteWindow_);
    background_ = xcb_generate_id(c);
    uint32_t black = screen_->black_pixel;
    xcb_create_gc(c, background_, window_, XCB_GC_FOREGROUND, &black);
    foreground_ = xcb_generate_id(c);
    uint32_t white = screen_->white_pixel;
    xcb_create_gc(c, foreground_, window_, XCB_GC_FOREGROUND, &white);
    xcb_map_window(c, window_);
    xcb_flush(c);
    return true;
}

void App::draw() {
    xcb_connection_t* c = connection_.get();
    xcb_rectangle_t all{0, 0, width_, height_};
    xcb_poly_fill_rectangle(c, window_, background_, 1, &all);
    xcb_rectangle_t square{int16_t(x_), int16_t(y_), 80, 80};
    xcb_poly_fill_rectangle(c, window_, foreground_, 1, &square);
    xcb_flush(c);
}

void App::startRecording() {
    state_ = State::Starting;
    client_->clientDidBecomeActive();
    std::printf("x11-recorder: asking to record window 0x%x for %.1f s\n", window_, seconds_);
    std::fflush(stdout);
    client_->startRecordingWindowLayerContextIDs(
        {window_}, {float(width_), float(height_)}, microphone_, false, false, false,
        [this](std::optional<sv::SVRecorderError> error, bool microphone, bool) {
            if (state_ != State::Starting) return;
            if (error) {
                std::fprintf(stderr, "x11-recorder: %s\n", error->description().c_str());
                finish(std::nullopt, 1);
                return;
            }
            std::printf("x11-recorder: recording%s\n", microphone ? " with the microphone" : "");
            std::fflush(stdout);
            state_ = State::Recording;
            if (stopWhenStarted_) {
                stopRecording();
                return;
            }
            stopAt_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(seconds_));
        });
}

void App::stopRecording() {
    // Closed while the service (or the user) is still deciding: stop as soon
    // as the answer comes, and keep whatever was recorded by then.
    if (state_ == State::Starting) {
        stopWhenStarted_ = true;
        return;
    }
    if (state_ != State::Recording) {
        if (state_ != State::Stopping) finish(std::nullopt, state_ == State::Waiting ? 0 : 1);
        return;
    }
    state_ = State::Stopping;
    client_->stopRecordingWithHandler(
        [this](std::optional<std::string> movie, std::optional<sv::SVRecorderError> error) {
            if (error) std::fprintf(stderr, "x11-recorder: %s\n", error->description().c_str());
            finish(movie, error ? 1 : 0);
        });
}

void App::finish(const std::optional<std::string>& movie, int status) {
    if (state_ == State::Done) return;
    state_ = State::Done;
    if (movie) {
        std::string path = *movie;
        if (!output_.empty()) {
            std::error_code ec;
            std::filesystem::copy_file(path, output_,
                                       std::filesystem::copy_options::overwrite_existing, ec);
            if (ec) {
                std::fprintf(stderr, "x11-recorder: cannot write %s: %s\n", output_.c_str(),
                             ec.message().c_str());
                status = 1;
            } else {
                path = output_;
            }
        }
        std::printf("%s\n", path.c_str());
        std::fflush(stdout);
    }
    status_ = status;
}

int App::run(std::shared_ptr<App> self) {
    if (!openWindow()) return 1;
    sv::SVRecorderClient::Options options;
    options.executor = [this](std::function<void()> task) { tasks_.post(std::move(task)); };
    client_ = std::make_unique<sv::SVRecorderClient>(options);
    client_->setDelegate(self);
    if (sv::SVRecorderClient::mainBundleIdentifier().empty())
        std::fprintf(stderr, "x11-recorder: not inside its bundle; the service will not know it\n");

    xcb_connection_t* c = connection_.get();
    while (!status_) {
        pollfd fds[] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {tasks_.fd(), POLLIN, 0}};
        poll(fds, 2, 33);  // about 30 frames per second
        while (auto* event = xcb_poll_for_event(c)) {
            XcbReply<xcb_generic_event_t> e(event, &std::free);
            switch (e->response_type & 0x7f) {
                case XCB_MAP_NOTIFY:
                    if (state_ == State::Waiting) startRecording();
                    break;
                case XCB_CONFIGURE_NOTIFY: {
                    auto* configure = reinterpret_cast<xcb_configure_notify_event_t*>(e.get());
                    width_ = configure->width;
                    height_ = configure->height;
                    break;
                }
                case XCB_FOCUS_IN:
                    client_->clientDidBecomeActive();
                    break;
                case XCB_FOCUS_OUT:
                    client_->clientDidResignActive();
                    break;
                case XCB_KEY_PRESS: {
                    auto detail = reinterpret_cast<xcb_key_press_event_t*>(e.get())->detail;
                    if (detail == 9 || detail == 24) stopRecording();  // Escape, q
                    break;
                }
                case XCB_CLIENT_MESSAGE: {
                    auto* message = reinterpret_cast<xcb_client_message_event_t*>(e.get());
                    if (message->type == protocols_ && message->data.data32[0] == deleteWindow_)
                        stopRecording();
                    break;
                }
                default:
                    break;
            }
        }
        if (xcb_connection_has_error(c)) {
            std::fprintf(stderr, "x11-recorder: the X server went away\n");
            return 1;
        }
        tasks_.runAll();
        if (state_ == State::Recording && Clock::now() >= stopAt_) stopRecording();
        // Move the square, bouncing off the edges.
        x_ += dx_;
        y_ += dy_;
        if (x_ < 0 || x_ + 80 > width_) dx_ = -dx_;
        if (y_ < 0 || y_ + 80 > height_) dy_ = -dy_;
        draw();
    }
    client_.reset();
    return *status_;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 5;
    bool microphone = false;
    std::string output;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) {
            char* end = nullptr;
            seconds = std::strtod(argv[++i], &end);
            if (*end || !(seconds > 0)) {
                std::fprintf(stderr, "x11-recorder: --seconds needs a number above 0\n");
                return 2;
            }
        } else if (a == "--mic") {
            microphone = true;
        } else if ((a == "-o" || a == "--output") && i + 1 < argc) {
            output = argv[++i];
        } else {
            std::fprintf(stderr, "usage: x11-recorder [--seconds N] [--mic] [-o FILE]\n");
            return a == "-h" || a == "--help" ? 0 : 2;
        }
    }
    auto app = std::make_shared<App>(seconds, microphone, output);
    return app->run(app);
}
