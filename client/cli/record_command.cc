// `sorvel record -o FILE ...`: records through the service as the
// application "org.sorvel.recorder" (the bundle this executable lives in),
// with a live status line and single-key controls, and writes the finished
// movie to FILE.
//
// Everything runs on the command's main loop: the recorder client's handlers
// and callbacks arrive through an executor that posts to it, the shell
// channel's answers are posted to it, and keys and signals are read by it.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#ifdef SV_CLI_HAVE_XCB
#include <xcb/xcb.h>

#include "platform/xcb_handles.h"
#endif

#include "client/cli/cli_loop.h"
#include "client/cli/movie_summary.h"
#include "client/cli/x11_monitors.h"
#include "client/cli_command.h"
#include "client/shell_client.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "protocol/broadcast_configuration.h"
#include "sorvel/recorder_client.h"

namespace {

using namespace std::chrono_literals;
using sv::SVRecorderError;
using sv::cli::MainLoop;
using Clock = std::chrono::steady_clock;

constexpr const char* kUsage =
    "usage: sorvel record -o FILE [options]\n"
    "       sorvel record --broadcast EXTENSION_ID [--user-info JSON] [options]\n"
    "\n"
    "Records through the screen-recording service, as the application\n"
    "\"org.sorvel.recorder\", and writes the finished movie to FILE; or\n"
    "broadcasts the recording through the broadcast extension EXTENSION_ID\n"
    "(e.g. org.sorvel.hls.upload) and prints its service information, one\n"
    "JSON object per line, as it arrives.\n"
    "\n"
    "options:\n"
    "  -o, --output FILE      where the movie goes (replaced if it exists)\n"
    "  --duration SECONDS     stop after this much recorded time (pauses do not count)\n"
    "  --mic                  record the microphone too (the user is asked)\n"
    "  --system               record the whole display instead of this command's layers\n"
    "  --monitor NAME         with --system on X11: record this monitor alone (names:\n"
    "                         sorvel monitors)\n"
    "  --desktop-audio        with --system: the application-audio track takes\n"
    "                         everything the desktop plays (default: the frontmost\n"
    "                         application's sound)\n"
    "  --layer ID             record this layer context; repeat for more (default: the\n"
    "                         layers the service shows for this command)\n"
    "  --size WxH             the recorded size in pixels (default on X11: the display's\n"
    "                         size for --system, the monitor's for --monitor, the\n"
    "                         first window's for --layer; on Wayland: the display's\n"
    "                         size for --system; else 1600x900)\n"
    "  --trim-start SECONDS   with --trim-end: cut whole seconds from the movie's start\n"
    "  --trim-end SECONDS     and end when it is finished\n"
    "  --broadcast ID         broadcast through this extension instead of writing a movie\n"
    "  --user-info JSON       with --broadcast: a JSON object for the extension (the HLS\n"
    "                         extension wants {\"directory\": \"DIR\"})\n"
    "  --clip-duration SECONDS  with --broadcast: the length of the uploaded fragments\n"
    "                         (default: the service's, 5 s)\n"
    "  --runtime-dir DIR      directory of the service's sockets\n"
    "\n"
    "While recording, when standard input is a terminal:\n"
    "  p  pause or resume    m  microphone on or off    q  stop and keep the movie\n"
    "  d  stop and discard   Ctrl-C  stop and keep the movie\n"
    "Without a terminal, --duration, SIGINT and SIGTERM stop the recording.\n"
    "\n"
    "Exit status: 0 the movie was written (or discarded on request); 1 failure or\n"
    "interruption (a movie the service handed back is still written to FILE); 2 usage.\n";

constexpr auto kStatusInterval = 250ms;
constexpr auto kConsentHintDelay = 1500ms;
constexpr auto kLayerWait = 3s;
// How long a stopped broadcast waits for the last fragment's service information.
constexpr auto kLastServiceInfoWait = 10s;

int usageError(const std::string& message) {
    return sv::cli::usageError("record", message, kUsage);
}
using sv::cli::parseSeconds;

std::optional<uint32_t> parseLayer(const char* text) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(text, &end, 0);
    if (errno || end == text || *end || text[0] == '-' || v > UINT32_MAX) return std::nullopt;
    return uint32_t(v);
}

std::optional<sv::SVWindowSize> parseSize(const std::string& text) {
    unsigned w = 0, h = 0;
    char x = 0, extra = 0;
    if (std::sscanf(text.c_str(), "%u%c%u%c", &w, &x, &h, &extra) != 3 || (x != 'x' && x != 'X'))
        return std::nullopt;
    if (w < 16 || h < 16 || w > 16384 || h > 16384) return std::nullopt;
    return sv::SVWindowSize{float(w), float(h)};
}

// On X11: the display's size for a recording of the whole display, the
// first window's for named layers (X window ids). On Wayland without X, for
// the whole display, none (the service's own). Elsewhere, or when the X
// server knows no such window, the synthetic display's default.
sv::SVWindowSize defaultSize(bool system, const std::vector<uint32_t>& layers) {
#ifdef SV_CLI_HAVE_XCB
    if (std::getenv("DISPLAY") && (system || !layers.empty())) {
        int screenNumber = 0;
        sv::XcbConnection c(xcb_connect(nullptr, &screenNumber));
        std::optional<sv::SVWindowSize> size;
        if (c && !xcb_connection_has_error(c.get())) {
            auto it = xcb_setup_roots_iterator(xcb_get_setup(c.get()));
            for (int i = 0; it.rem && i < screenNumber; ++i) xcb_screen_next(&it);
            if (system && it.rem) {
                size = sv::SVWindowSize{float(it.data->width_in_pixels),
                                        float(it.data->height_in_pixels)};
            } else if (!system) {
                sv::XcbReply<xcb_get_geometry_reply_t> g(xcb_get_geometry_reply(
                    c.get(), xcb_get_geometry(c.get(), layers.front()), nullptr));
                if (g && g->width > 0 && g->height > 0)
                    size = sv::SVWindowSize{float(g->width), float(g->height)};
            }
        }
        if (size) return *size;
    }
#else
    (void)layers;
#endif
    // A Wayland desktop without X: no size to ask a client for; an empty
    // size records the display at the size the service knows for it.
    const char* x = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (system && (!x || !*x) && wayland && *wayland) return {0, 0};
    return {1600, 900};
}

std::string formatBytes(int64_t bytes) {
    char buf[32];
    if (bytes < 1000 * 1000)
        std::snprintf(buf, sizeof buf, "%.0f kB", double(bytes) / 1000);
    else
        std::snprintf(buf, sizeof buf, "%.1f MB", double(bytes) / 1e6);
    return buf;
}

std::string formatTime(double seconds) {
    int total = int(seconds);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d.%d", total / 60, total % 60,
                  int((seconds - total) * 10));
    return buf;
}

// Puts the service's movie at `output`. The movie belongs to this command
// now, so one in the service's movie store (".../Library/Sorvel/") is moved
// (renamed when both lie on one file system); anything else the answer
// names is only copied, and only when it is a regular file, so that a
// process standing in for the service cannot make this command move or
// stream arbitrary files.
sv::Result<void> saveMovie(const std::string& movie, const std::string& output) {
    namespace fs = std::filesystem;
    auto fail = [](const std::string& why) {
        return sv::Error::make(sv::cli::kCLIErrorDomain, sv::cli::kCLIErrorCannotSaveMovie, why);
    };
    std::error_code ec;
    if (!fs::is_regular_file(movie, ec)) return fail(movie + " is not a movie file");
    if (fs::equivalent(movie, output, ec)) return {};
    const bool inStore = fs::path(movie).parent_path().string().ends_with("/Library/Sorvel");
    if (inStore && std::rename(movie.c_str(), output.c_str()) == 0) return {};
    if (!fs::copy_file(movie, output, fs::copy_options::overwrite_existing, ec))
        return fail(ec.message());
    if (inStore) fs::remove(movie, ec);
    return {};
}

struct Options {
    std::string output;
    std::optional<double> duration;
    bool microphone = false;
    bool system = false;
    bool desktopAudio = false;
    std::optional<std::string> monitorName;
    // The monitor's name atom, sent as the system recording's identifier,
    // and its size (the default movie size).
    std::optional<uint32_t> monitor;
    std::optional<sv::SVWindowSize> monitorSize;
    std::vector<uint32_t> layers;
    std::optional<sv::SVWindowSize> size;
    std::optional<double> trimStart, trimEnd;
    std::optional<std::string> broadcast;  // the extension's identifier
    std::string userInfoJSON;
    std::optional<double> clipDuration;
};

class Recorder : public sv::SVRecorderClientDelegate,
                 public std::enable_shared_from_this<Recorder> {
  public:
    Recorder(Options options, std::shared_ptr<MainLoop> loop)
        : options_(std::move(options)), loop_(std::move(loop)) {}

    int run();

    void stopRecordingWithError(const std::optional<SVRecorderError>& error,
                                const std::optional<std::string>& moviePath) override;
    void updateBroadcastServiceInfo(const std::string& serviceInfoJSON) override;

  private:
    enum class Phase { Preparing, Starting, Recording, Stopping, Done };

    void findLayers(Clock::time_point deadline);
    void start();
    void started(std::optional<SVRecorderError> error, bool microphone);
    void pollStatus();
    // Stops the recording `seconds` from now (replacing an earlier timer).
    void armDurationTimer(double seconds);
    void onKey(char key);
    void onSignal(int signal);
    void togglePause();
    void toggleMicrophone();
    void stop(bool discard);
    void stopped(std::optional<std::string> movie, std::optional<SVRecorderError> error);
    // The stopped broadcast's command ends with the stop's exit status.
    void endBroadcast();
    void finish(const std::optional<std::string>& movie,
                const std::optional<SVRecorderError>& error, bool interrupted);
    double recordedSeconds() const;
    void render();
    void clearStatusLine();
    void note(const std::string& text);
    void fail(const std::string& text) {
        note(text);
        phase_ = Phase::Done;
        loop_->quit(1);
    }

    Options options_;
    // Shared with the closures the client and shell run on their threads.
    std::shared_ptr<MainLoop> loop_;
    std::unique_ptr<sv::SVRecorderClient> client_;
    std::unique_ptr<sv::ShellClient> shell_;
    std::unique_ptr<sv::cli::RawTerminal> terminal_;
    std::string bundleID_;
    Phase phase_ = Phase::Preparing;
    bool discard_ = false;
    bool microphoneAllowed_ = false, microphoneOn_ = false, paused_ = false;
    Clock::duration recorded_{0};
    Clock::time_point segmentStart_;
    std::optional<sv::ShellRecordingStatus> status_;
    uint64_t localChanges_ = 0;  // key presses that changed pause or microphone
    bool statusLineShown_ = false;
    bool liveStatus_ = isatty(STDERR_FILENO);
    bool broadcastSetUp_ = false;
    // Broadcasts: the stop has been answered (with this exit status); the
    // command waits a little for the last fragment's service information.
    bool broadcastStopped_ = false;
    int broadcastStatus_ = 0;
    // Service information printed in all, and by the time the user stopped.
    uint64_t serviceInfos_ = 0;
    uint64_t serviceInfosAtStop_ = 0;
    // The extension's last information ("finished": true) came after the
    // stop; a processing extension sends it before the stop is answered.
    bool finishedInfo_ = false;
    uint64_t hintTimer_ = 0, pollTimer_ = 0, durationTimer_ = 0;
};

void Recorder::note(const std::string& text) {
    clearStatusLine();
    std::fprintf(stderr, "%s\n", text.c_str());
}

void Recorder::clearStatusLine() {
    if (statusLineShown_) std::fputs("\r\033[2K", stderr);
    statusLineShown_ = false;
}

double Recorder::recordedSeconds() const {
    auto total = recorded_;
    if (phase_ == Phase::Recording && !paused_) total += Clock::now() - segmentStart_;
    return std::chrono::duration<double>(total).count();
}

void Recorder::render() {
    if (!liveStatus_ || phase_ != Phase::Recording) return;
    // The service's figures when it reports them, else the local clock.
    double elapsed = status_ ? status_->elapsed : recordedSeconds();
    std::string line = std::string(paused_ ? "PAUSED " : "REC    ") + formatTime(elapsed);
    if (status_) {
        line += "  " + formatBytes(status_->movieBytes) + "  " +
                std::to_string(status_->framesWritten) + " frames";
        if (status_->framesDropped > 0)
            line += " (" + std::to_string(status_->framesDropped) + " dropped)";
    }
    line += microphoneOn_ ? "  mic on" : "  mic off";
    std::fprintf(stderr, "\r\033[2K%s", line.c_str());
    std::fflush(stderr);
    statusLineShown_ = true;
}

int Recorder::run() {
    bundleID_ = sv::SVRecorderClient::mainBundleIdentifier();
    if (bundleID_.empty()) {
        std::fprintf(stderr,
                     "sorvel record: this executable is not inside its bundle, so the service "
                     "cannot tell which application asks; run the installed sorvel (or the one "
                     "in <build>/bundles/sorvel-recorder)\n");
        return 1;
    }
    sv::SVRecorderClient::Options o;
    o.executor = [loop = loop_](std::function<void()> task) { loop->post(std::move(task)); };
    client_ = std::make_unique<sv::SVRecorderClient>(std::move(o));
    client_->setDelegate(weak_from_this());
    // On the loop, through the executor.
    client_->setWarningHandler([w = weak_from_this()](const sv::SVRecorderWarning& warning) {
        auto self = w.lock();
        if (!self) return;
        self->note("sorvel record: warning: " + warning.message);
        self->render();
    });
    shell_ = std::make_unique<sv::ShellClient>();
    loop_->handleTerminationSignals([this](int s) { onSignal(s); });

    // The service learns of this application when its connection arrives;
    // report it active first, then ask for its layers.
    client_->clientDidBecomeActiveWithBundleID(bundleID_);
    if (options_.system || !options_.layers.empty())
        start();
    else
        findLayers(Clock::now() + kLayerWait);
    int status = loop_->run();
    clearStatusLine();
    terminal_.reset();
    // Closing the connection before the shell client keeps the order of the
    // service's view: the application goes first.
    client_.reset();
    shell_.reset();
    return status;
}

void Recorder::findLayers(Clock::time_point deadline) {
    std::weak_ptr<Recorder> w = weak_from_this();
    shell_->layerContextIDsForCaller(
        [loop = loop_, w, deadline](std::vector<uint32_t> layers, sv::OptionalError error) {
            loop->post([w, deadline, layers = std::move(layers), error = std::move(error)] {
                auto self = w.lock();
                if (!self || self->phase_ != Phase::Preparing) return;
                if (error) {
                    if (error->domain == sv::ipc::kIPCErrorDomain) {
                        self->fail("sorvel record: " +
                                   SVRecorderError::clientError(
                                       error->code == sv::ipc::kErrorConnectionInterrupted
                                           ? SVRecorderError::kClientServiceNotRunning
                                           : SVRecorderError::kClientRequestRejected)
                                       .description());
                    } else {
                        self->fail("sorvel record: the service has no layers of this command (" +
                                   error->localizedDescription().value_or(error->description()) +
                                   "); record the whole display with --system or name layers "
                                   "with --layer");
                    }
                    return;
                }
                if (layers.empty()) {
                    // The service adds this command's layers when it accepts the
                    // connection; that may take a moment.
                    if (Clock::now() < deadline) {
                        self->loop_->after(50ms, [w, deadline] {
                            if (auto s = w.lock()) s->findLayers(deadline);
                        });
                    } else {
                        self->fail(
                            "sorvel record: the service shows no layers of this command; record "
                            "the whole display with --system or name layers with --layer");
                    }
                    return;
                }
                self->options_.layers = std::move(layers);
                self->start();
            });
        });
}

void Recorder::updateBroadcastServiceInfo(const std::string& serviceInfoJSON) {
    clearStatusLine();
    std::printf("%s\n", serviceInfoJSON.c_str());
    std::fflush(stdout);
    ++serviceInfos_;
    // After the stop: the information of the last fragment ends the command
    // (an extension marks it "finished": true).
    auto info = sv::Value::parse(serviceInfoJSON, nullptr, false);
    if (phase_ != Phase::Stopping || sv::boolAt(info, "finished") != true) return;
    finishedInfo_ = true;
    if (broadcastStopped_) endBroadcast();
}

void Recorder::start() {
    if (options_.broadcast && !broadcastSetUp_) {
        // The set-up comes first; the service keeps it for the next start.
        std::optional<std::vector<uint8_t>> configuration;
        if (options_.clipDuration) {
            sv::SVBroadcastConfiguration c;
            c.setClipDuration(*options_.clipDuration);
            configuration = c.encodedData();
        }
        std::weak_ptr<Recorder> w = weak_from_this();
        client_->setupBroadcastWithHostBundleID(
            bundleID_, *options_.broadcast, std::move(configuration), options_.userInfoJSON,
            [w](std::optional<SVRecorderError> error) {
                auto self = w.lock();
                if (!self) return;
                if (error) {
                    self->fail("sorvel record: broadcast set-up failed: " + error->description());
                    return;
                }
                self->broadcastSetUp_ = true;
                self->start();
            });
        return;
    }
    phase_ = Phase::Starting;
    // Keys work from now on: q gives up while the user is being asked.
    terminal_ = std::make_unique<sv::cli::RawTerminal>(STDIN_FILENO);
    if (terminal_->active()) {
        loop_->watch(STDIN_FILENO, [this] {
            char keys[16];
            ssize_t n = read(STDIN_FILENO, keys, sizeof keys);
            if (n <= 0) {
                loop_->unwatch(STDIN_FILENO);
                return;
            }
            for (ssize_t i = 0; i < n; ++i) onKey(keys[i]);
        });
    }
    auto size = options_.size          ? *options_.size
                : options_.monitorSize ? *options_.monitorSize
                                       : defaultSize(options_.system, options_.layers);
    hintTimer_ = loop_->after(kConsentHintDelay, [this] {
        note(
            "sorvel record: waiting for the user to allow the recording (a consent agent "
            "shows the question: sorvel consent-agent; q or Ctrl-C gives up)...");
    });
    std::weak_ptr<Recorder> w = weak_from_this();
    if (options_.desktopAudio) client_->setSystemRecordingDesktopAudio(true);
    client_->startRecordingWindowLayerContextIDs(
        options_.monitor ? std::vector<uint32_t>{*options_.monitor} : options_.layers, size,
        options_.microphone, false, options_.broadcast.has_value(), options_.system,
        [w](std::optional<SVRecorderError> error, bool microphone, bool) {
            if (auto self = w.lock()) self->started(std::move(error), microphone);
        });
}

void Recorder::started(std::optional<SVRecorderError> error, bool microphone) {
    loop_->cancel(hintTimer_);
    if (phase_ != Phase::Starting) return;
    if (error) {
        fail("sorvel record: " + error->description());
        return;
    }
    phase_ = Phase::Recording;
    segmentStart_ = Clock::now();
    microphoneAllowed_ = microphoneOn_ = microphone;
    if (options_.microphone && !microphone)
        note("sorvel record: recording without the microphone (not allowed by the user)");
    if (terminal_->active())
        note("Recording. p pause/resume, m microphone, q stop, d discard.");
    else
        note("Recording.");
    pollStatus();
    // Re-armed on resume (pauses do not count) and by every status answer.
    if (options_.duration) armDurationTimer(*options_.duration);
}

void Recorder::armDurationTimer(double seconds) {
    loop_->cancel(durationTimer_);
    std::weak_ptr<Recorder> w = weak_from_this();
    durationTimer_ = loop_->after(std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(std::max(seconds, 0.0))),
                                  [w] {
                                      if (auto s = w.lock()) s->stop(false);
                                  });
}

void Recorder::pollStatus() {
    if (phase_ != Phase::Recording) return;
    std::weak_ptr<Recorder> w = weak_from_this();
    uint64_t changes = localChanges_;
    shell_->recordingStatusForCaller(
        [loop = loop_, w, changes](std::optional<sv::ShellRecordingStatus> status,
                                   sv::OptionalError error) {
            loop->post([w, changes, status = std::move(status), error = std::move(error)] {
                auto self = w.lock();
                if (!self || self->phase_ != Phase::Recording) return;
                // A service without the status method: the local clock. An
                // answer to a question asked before the last key press may
                // not show what the key changed yet.
                if (!error && status && status->recording && changes == self->localChanges_) {
                    self->status_ = status;
                    self->paused_ = status->paused;
                    self->microphoneOn_ = status->microphoneEnabled;
                    // --duration counts the service's recorded time: the
                    // start's answer may reach this process late.
                    if (self->options_.duration && !self->paused_)
                        self->armDurationTimer(*self->options_.duration - status->elapsed);
                }
                self->render();
                self->pollTimer_ = self->loop_->after(kStatusInterval, [w] {
                    if (auto s = w.lock()) s->pollStatus();
                });
            });
        });
}

void Recorder::onKey(char key) {
    if (phase_ == Phase::Starting && (key == 'q' || key == 'Q')) {
        // Leaving closes the connection: the service withdraws the question.
        fail("sorvel record: cancelled before the recording started");
        return;
    }
    if (phase_ != Phase::Recording) return;
    switch (key) {
        case 'p':
        case 'P':
            togglePause();
            break;
        case 'm':
        case 'M':
            toggleMicrophone();
            break;
        case 'q':
        case 'Q':
            stop(false);
            break;
        case 'd':
        case 'D':
            stop(true);
            break;
        default:
            break;
    }
}

void Recorder::togglePause() {
    if (options_.system) {
        note("sorvel record: a recording of the whole display cannot pause");
        return;
    }
    if (paused_) {
        client_->resumeRecordingWithWindowLayerContextID(options_.layers.front());
        paused_ = false;
        segmentStart_ = Clock::now();
        if (options_.duration) armDurationTimer(*options_.duration - recordedSeconds());
    } else {
        client_->pauseRecording();
        recorded_ += Clock::now() - segmentStart_;
        paused_ = true;
        loop_->cancel(durationTimer_);
    }
    ++localChanges_;
    render();
}

void Recorder::toggleMicrophone() {
    if (!microphoneAllowed_) {
        note(options_.microphone
                 ? "sorvel record: the user did not allow the microphone for this recording"
                 : "sorvel record: start with --mic to record the microphone");
        return;
    }
    microphoneOn_ = !microphoneOn_;
    client_->setMicrophoneEnabled(microphoneOn_);
    ++localChanges_;
    render();
}

void Recorder::onSignal(int) {
    switch (phase_) {
        case Phase::Preparing:
        case Phase::Starting:
            fail("sorvel record: cancelled before the recording started");
            break;
        case Phase::Recording:
            stop(false);
            break;
        case Phase::Stopping:
            fail("sorvel record: not waiting for the service any more; the movie stays with it");
            break;
        case Phase::Done:
            break;
    }
}

void Recorder::stop(bool discard) {
    if (phase_ != Phase::Recording) return;
    if (!paused_) recorded_ += Clock::now() - segmentStart_;
    phase_ = Phase::Stopping;
    discard_ = discard;
    serviceInfosAtStop_ = serviceInfos_;
    loop_->cancel(pollTimer_);
    loop_->cancel(durationTimer_);
    loop_->unwatch(STDIN_FILENO);
    note(discard ? "Stopping and discarding..." : "Stopping...");
    std::weak_ptr<Recorder> w = weak_from_this();
    auto handler = [w](std::optional<std::string> movie, std::optional<SVRecorderError> error) {
        if (auto self = w.lock()) self->stopped(std::move(movie), std::move(error));
    };
    if (options_.trimStart && options_.trimEnd && !discard)
        client_->stopRecordingWithStartClipDuration(*options_.trimStart, *options_.trimEnd,
                                                    handler);
    else
        client_->stopRecordingWithHandler(handler);
}

void Recorder::endBroadcast() {
    phase_ = Phase::Done;
    loop_->quit(broadcastStatus_);
}

void Recorder::stopped(std::optional<std::string> movie, std::optional<SVRecorderError> error) {
    if (phase_ != Phase::Stopping) return;
    if (options_.broadcast && !discard_) {
        // A broadcast hands back no movie: its fragments went to the
        // extension, whose answer to the last one may still come.
        if (error) {
            finish(std::nullopt, error, false);
            return;
        }
        note("Broadcast stopped.");
        broadcastStopped_ = true;
        broadcastStatus_ = 0;
        if (finishedInfo_) return endBroadcast();
        loop_->after(kLastServiceInfoWait, [this] {
            if (phase_ == Phase::Done) return;
            if (serviceInfos_ == 0)
                note("sorvel record: no service information from the extension");
            else if (serviceInfos_ == serviceInfosAtStop_)
                note("sorvel record: no service information after the stop");
            endBroadcast();
        });
        return;
    }
    if (!discard_) {
        finish(movie, error, false);
        return;
    }
    if (error && error->isClientError()) {
        fail("sorvel record: " + error->description());
        return;
    }
    std::weak_ptr<Recorder> w = weak_from_this();
    client_->discardRecordingWithHandler([w](std::optional<SVRecorderError> e) {
        auto self = w.lock();
        if (!self || self->phase_ != Phase::Stopping) return;
        if (e) {
            self->fail("sorvel record: " + e->description());
            return;
        }
        self->note("Recording discarded; nothing was written.");
        self->phase_ = Phase::Done;
        self->loop_->quit(0);
    });
}

void Recorder::stopRecordingWithError(const std::optional<SVRecorderError>& error,
                                      const std::optional<std::string>& moviePath) {
    if (phase_ == Phase::Done || phase_ == Phase::Preparing) return;
    finish(
        moviePath,
        error ? error : SVRecorderError::clientError(SVRecorderError::kClientConnectionInterrupted),
        true);
}

void Recorder::finish(const std::optional<std::string>& movie,
                      const std::optional<SVRecorderError>& error, bool interrupted) {
    loop_->cancel(pollTimer_);
    loop_->cancel(durationTimer_);
    loop_->cancel(hintTimer_);
    loop_->unwatch(STDIN_FILENO);
    phase_ = Phase::Done;
    int status = error ? 1 : 0;
    if (error)
        note(std::string("sorvel record: ") + (interrupted ? "recording interrupted: " : "") +
             error->description());
    if (movie) {
        if (auto saved = saveMovie(*movie, options_.output)) {
            if (error) note("sorvel record: the movie recorded so far is in " + options_.output);
            std::printf("%s\n", options_.output.c_str());
            std::fflush(stdout);
            sv::cli::printMovieSummary(options_.output, stdout);
        } else {
            note("sorvel record: cannot write " + options_.output + ": " + saved.error().message() +
                 "; the movie is still at " + *movie);
            status = 1;
        }
    } else if (!error) {
        note("sorvel record: the service handed back no movie");
        status = 1;
    }
    loop_->quit(status);
}

int runRecord(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (a == "-o" || a == "--output") {
            if (!(v = value())) return usageError("-o needs a file");
            o.output = v;
        } else if (a == "--duration" || a == "--trim-start" || a == "--trim-end") {
            auto s = (v = value()) ? parseSeconds(v) : std::nullopt;
            if (!s) return usageError(a + " needs a number of seconds, 0 or more");
            if (a == "--duration" && *s <= 0) return usageError("--duration must be above 0");
            (a == "--duration" ? o.duration : a == "--trim-start" ? o.trimStart : o.trimEnd) = s;
        } else if (a == "--mic") {
            o.microphone = true;
        } else if (a == "--system") {
            o.system = true;
        } else if (a == "--desktop-audio") {
            o.desktopAudio = true;
        } else if (a == "--monitor") {
            if (!(v = value())) return usageError("--monitor needs a monitor name");
            o.monitorName = v;
        } else if (a == "--layer") {
            auto id = (v = value()) ? parseLayer(v) : std::nullopt;
            if (!id) return usageError("--layer needs a layer context identifier");
            o.layers.push_back(*id);
        } else if (a == "--size") {
            auto size = (v = value()) ? parseSize(v) : std::nullopt;
            if (!size) return usageError("--size needs WIDTHxHEIGHT, each 16 to 16384");
            o.size = size;
        } else if (a == "--broadcast") {
            if (!(v = value()) || !*v)
                return usageError("--broadcast needs an extension identifier");
            o.broadcast = v;
        } else if (a == "--user-info") {
            if (!(v = value())) return usageError("--user-info needs a JSON object");
            auto parsed = sv::Value::parse(v, nullptr, false);
            if (!parsed.is_object()) return usageError("--user-info needs a JSON object");
            o.userInfoJSON = v;
        } else if (a == "--clip-duration") {
            auto s = (v = value()) ? parseSeconds(v) : std::nullopt;
            if (!s || *s <= 0)
                return usageError("--clip-duration needs a number of seconds above 0");
            o.clipDuration = s;
        } else if (a == "--runtime-dir") {
            if (!(v = value())) return usageError("--runtime-dir needs a directory");
            // Both the recorder library and the shell client read it.
            setenv("SORVEL_RUNTIME_DIR", v, 1);
            sv::ipc::setRuntimeDirectory(v);
        } else {
            return usageError("unknown option " + a);
        }
    }
    if (!o.broadcast && (!o.userInfoJSON.empty() || o.clipDuration))
        return usageError("--user-info and --clip-duration go with --broadcast");
    if (o.broadcast && (!o.output.empty() || o.trimStart || o.trimEnd))
        return usageError("a broadcast writes no movie: no -o, --trim-start or --trim-end");
    if (o.output.empty() && !o.broadcast) return usageError("no output file given (-o FILE)");
    if (o.trimStart.has_value() != o.trimEnd.has_value())
        return usageError("--trim-start and --trim-end go together");
    if (o.system && !o.layers.empty()) return usageError("--system records every layer");
    if (o.desktopAudio && !o.system) return usageError("--desktop-audio goes with --system");
    if (o.monitorName) {
        if (!o.system) return usageError("--monitor goes with --system");
        auto monitors = sv::cli::listX11Monitors();
        if (!monitors) {
            std::fprintf(stderr, "sorvel record: %s\n", monitors.error().description().c_str());
            return 1;
        }
        for (const auto& m : *monitors)
            if (m.name == *o.monitorName) {
                o.monitor = m.nameAtom;
                o.monitorSize = sv::SVWindowSize{float(m.width), float(m.height)};
            }
        if (!o.monitor) {
            std::string names;
            for (const auto& m : *monitors) names += " " + m.name;
            std::fprintf(stderr, "sorvel record: no monitor named %s (there are:%s)\n",
                         o.monitorName->c_str(), names.empty() ? " none" : names.c_str());
            return 1;
        }
    }
    if (!o.broadcast) {
        // Fail before recording, not after: the output must be writable.
        namespace fs = std::filesystem;
        std::error_code ec;
        fs::path out = fs::absolute(o.output, ec);
        fs::path dir = out.parent_path();
        if (fs::is_directory(out, ec)) return usageError(o.output + " is a directory");
        if (access(dir.c_str(), W_OK) != 0) {
            std::fprintf(stderr, "sorvel record: cannot write into %s: %s\n", dir.c_str(),
                         std::strerror(errno));
            return 1;
        }
        o.output = out.lexically_normal().string();
    }
    // The tool reports what matters itself; library log lines would tear
    // the status line apart.
    sv::log::setOutputEnabled(false);
    setenv("SORVEL_LOG_LEVEL", "quiet", 0);

    auto loop = std::make_shared<MainLoop>();
    auto recorder = std::make_shared<Recorder>(std::move(o), loop);
    return recorder->run();
}

sv::cli::CliRegistration reg({"record", "record the screen through the service into a movie",
                              &runRecord});

}  // namespace
