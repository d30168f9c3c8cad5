// sorveld: the screen-recording daemon. Starts the recording manager, opens
// the daemon's service and the shell channel, and runs the main run loop
// until SIGTERM or SIGINT (or, when socket-activated, until it has been idle
// for a while).
#include <malloc.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon/consent_agent.h"
#include "daemon/daemon_platform.h"
#include "daemon/recording_manager.h"
#include "daemon/shell_service.h"
#include "daemon/trust.h"
#include "platform/audio/audio_backend.h"
#include "platform/dispatch.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "platform/process/keep_alive.h"
#include "platform/process/purgeable_space.h"
#include "platform/process/termination_signals.h"
#include "platform/screen/screen_backend.h"
#include "platform/screen/synthetic_screen.h"
#include "platform/system/system_alert.h"
#include "platform/ui/ui_backend.h"
#include "protocol/service_names.h"
#include "session/recording_session.h"
#include "support/movie_store.h"

namespace {

// Heap arenas of the daemon (see main).
constexpr int kMallocArenas = 2;

void usage(FILE* out) {
    std::fprintf(
        out,
        "usage: sorveld [options]\n\n"
        "The screen-recording service. Runs until SIGTERM or SIGINT.\n\n"
        "options:\n"
        "  --runtime-dir DIR     directory of the service sockets\n"
        "                        (default: $SORVEL_RUNTIME_DIR, $XDG_RUNTIME_DIR, /tmp)\n"
        "  --home DIR            home directory holding the movie store Library/Sorvel/\n"
        "                        (default: $HOME, else the user's home in the password\n"
        "                        database)\n"
        "  --log-level LEVEL     default, debug or quiet (default: $SORVEL_LOG_LEVEL or default)\n"
        "  --audio-backend KIND  auto, pulse or synthetic: where microphone and application\n"
        "                        audio come from (default: $SORVEL_AUDIO_BACKEND, else\n"
        "                        PulseAudio when a server answers, else synthetic)\n"
        "  --screen-backend KIND auto, x11, portal or synthetic: where screen frames come\n"
        "                        from and which window system foreground tracking watches\n"
        "                        (default: $SORVEL_SCREEN_BACKEND, else the screen-cast\n"
        "                        portal when $WAYLAND_DISPLAY is set and it answers, else\n"
        "                        X11 when $DISPLAY names a server, else synthetic)\n"
        "  --idle-exit SECONDS   when started by socket activation, end after this long with\n"
        "                        no recording and no connection but the consent agent's\n"
        "                        (default: 60)\n"
        "  --agent-wait SECONDS  with no consent agent registered, a consent question waits\n"
        "                        this long for one (an agent started with the service)\n"
        "                        before the recording is refused (default: 0)\n"
        "  --test-clock          let the shell channel move the clock of consent\n"
        "                        exemptions forward (advanceClockBy:); for tests only\n"
        "  --trusted-agent PATH  also trust this executable as consent agent and for system\n"
        "                        recordings without asking (repeatable; besides the sorvel\n"
        "                        built or installed beside sorveld and the entries of\n"
        "                        /etc/sorvel/trusted-agents)\n"
        "  --extension-link-wait SECONDS\n"
        "                        how long a sample-buffer broadcast waits for its\n"
        "                        extension's link before recording without it (default 10)\n"
        "  --trusted-bundle-dir DIR\n"
        "                        take the manifests of bundles below DIR at their word even\n"
        "                        when others may write DIR or a directory above it\n"
        "                        (repeatable; build trees, tests)\n"
        "  -h, --help            show this help\n\n"
        "Services: org.sorvel.sorveld (applications), org.sorvel.sorveld.shell (the\n"
        "operating system's side; see `sorvel shell --help`), sockets in the runtime\n"
        "directory; sockets passed by systemd (sorveld.socket) are used when present.\n\n"
        "Exit status: 255 ended by SIGTERM, SIGINT or the idle exit (the service's\n"
        "normal end); 1 it cannot start (no home directory, a backend that cannot be\n"
        "used, another instance listening); 2 usage. Ended by a crash or another\n"
        "signal (short of SIGKILL), its last log line names the signal:\n"
        "\"<critical> ended by signal 11 (SIGSEGV)\".\n\n"
        "Environment: SORVEL_RUNTIME_DIR, XDG_RUNTIME_DIR (the runtime directory);\n"
        "HOME (the movie store); SORVEL_LOG_LEVEL; SORVEL_AUDIO_BACKEND,\n"
        "SORVEL_SCREEN_BACKEND, DISPLAY (capture); SORVEL_BUNDLE_PATH, XDG_DATA_HOME\n"
        "(bundles of applications, before the installed ones); LISTEN_FDS,\n"
        "LISTEN_FDNAMES (socket activation).\n\n"
        "Files: ~/Library/Sorvel/ the movie store; <prefix>/share/sorvel/ string tables\n"
        "and bundles; ~/.local/share/sorvel/bundles/ the user's bundles.\n\n"
        "See also: sorvel(1), systemctl --user enable --now sorveld.socket.\n");
}

struct Options {
    std::string runtimeDirectory, home, logLevel;
    std::optional<sv::AudioBackendKind> audioBackend;
    std::optional<sv::ScreenBackendKind> screenBackend;
    long idleExitSeconds = 60;
    long agentWaitSeconds = 0;
    long extensionLinkWaitSeconds = 10;
    bool testClock = false;
    std::vector<std::string> trustedAgents, trustedBundleDirectories;
};

// 0: go on; otherwise the exit status.
int parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        const char* v = nullptr;
        if (a == "-h" || a == "--help") {
            usage(stdout);
            return -2;
        } else if (a == "--runtime-dir" && (v = value())) {
            o.runtimeDirectory = v;
        } else if (a == "--home" && (v = value())) {
            o.home = v;
        } else if (a == "--log-level" && (v = value())) {
            o.logLevel = v;
            if (o.logLevel != "default" && o.logLevel != "debug" && o.logLevel != "quiet") {
                std::fprintf(stderr, "sorveld: unknown log level '%s'\n", v);
                return 2;
            }
        } else if (a == "--audio-backend" && (v = value())) {
            o.audioBackend = sv::parseAudioBackendKind(v);
            if (!o.audioBackend) {
                std::fprintf(stderr, "sorveld: unknown audio backend '%s'\n", v);
                return 2;
            }
        } else if (a == "--screen-backend" && (v = value())) {
            o.screenBackend = sv::parseScreenBackendKind(v);
            if (!o.screenBackend) {
                std::fprintf(stderr, "sorveld: unknown screen backend '%s'\n", v);
                return 2;
            }
        } else if (a == "--trusted-agent" && (v = value())) {
            o.trustedAgents.push_back(v);
        } else if (a == "--trusted-bundle-dir" && (v = value())) {
            o.trustedBundleDirectories.push_back(v);
        } else if (a == "--test-clock") {
            o.testClock = true;
        } else if ((a == "--idle-exit" || a == "--agent-wait" || a == "--extension-link-wait") &&
                   (v = value())) {
            char* end = nullptr;
            long& seconds = a == "--idle-exit"    ? o.idleExitSeconds
                            : a == "--agent-wait" ? o.agentWaitSeconds
                                                  : o.extensionLinkWaitSeconds;
            errno = 0;
            seconds = std::strtol(v, &end, 10);
            if (!*v || *end || errno || seconds < 0 || seconds > 86400) {
                std::fprintf(stderr, "sorveld: %s needs a number of seconds (up to 86400)\n",
                             a.c_str());
                return 2;
            }
        } else {
            std::fprintf(stderr, "sorveld: unknown or incomplete option '%s'\n", a.c_str());
            usage(stderr);
            return 2;
        }
    }
    return 0;
}

// Log level, runtime directory and home as the options say.
void applySettings(const Options& options) {
    if (options.logLevel == "debug") sv::log::setDebugEnabled(true);
    if (options.logLevel == "quiet") sv::log::setOutputEnabled(false);
    if (options.logLevel == "default") {
        sv::log::setDebugEnabled(false);
        sv::log::setOutputEnabled(true);
    }
    if (!options.runtimeDirectory.empty()) sv::ipc::setRuntimeDirectory(options.runtimeDirectory);
    if (!options.home.empty()) sv::MovieStore::shared().setHomeDirectory(options.home);
}

// The audio, screen and window-system backends; false (with the reason
// printed) when one cannot be used.
bool setUpBackends(const Options& options) {
    // Without the option the backend is chosen when capture is first used.
    if (options.audioBackend && *options.audioBackend != sv::AudioBackendKind::Automatic)
        sv::setProcessAudioBackend(sv::makeAudioBackend(*options.audioBackend));
    if (options.screenBackend && *options.screenBackend != sv::ScreenBackendKind::Automatic) {
        auto screen = sv::makeScreenBackend(*options.screenBackend);
        if (!screen) {
            std::fprintf(stderr, "sorveld: cannot use the screen backend: %s\n",
                         screen.error().message().c_str());
            return false;
        }
        sv::setProcessScreenBackend(std::move(*screen));
    }
    // The window system follows the screen: the synthetic one on the
    // synthetic screen's display, X11 with the X11 screen.
    auto screen = sv::processScreenBackend();
    const bool synthetic = std::dynamic_pointer_cast<sv::SyntheticScreenBackend>(screen) != nullptr;
    // A Wayland desktop is seen through its X server (Xwayland) when it has
    // one; without one, through the compositor's list of toplevels where it
    // offers one (wlroots compositors), else there is no window system to
    // watch.
    const char* display = std::getenv("DISPLAY");
    const bool portal = !synthetic && screen && screen->name() == "portal";
    const bool x11 = !synthetic && (!portal || (display && *display));
    auto ui = [&]() -> sv::Result<std::shared_ptr<sv::UiBackend>> {
        if (portal && !x11) {
            auto wayland = sv::makeUiBackend(sv::UiBackendKind::Wayland);
            if (wayland) return wayland;
            sv::log::info(
                "UI: no foreground tracking on this Wayland desktop (%@): no application is "
                "frontmost",
                wayland.error().message());
        }
        return sv::makeUiBackend(x11 ? sv::UiBackendKind::X11 : sv::UiBackendKind::Synthetic);
    }();
    if (!ui) {
        std::fprintf(stderr, "sorveld: cannot use the window system: %s\n",
                     ui.error().message().c_str());
        return false;
    }
    sv::setProcessUiBackend(std::move(*ui));
    return true;
}

// A recording in progress is finished before the service ends, and the
// message that tells its client leaves before the process does.
void finishRecordingsOnTermination() {
    sv::stopMainRunLoopOnTerminationSignalsAfter(
        [](int, std::function<void()> done) {
            auto manager = sv::sharedRecordingManager();
            if (!manager) return done();
            manager->finishRecordingsForTermination([done] {
                const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
                while (sv::ipc::outgoingMessageCount() > 0 &&
                       std::chrono::steady_clock::now() < until)
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                done();
            });
        },
        std::chrono::seconds(15));
}

// Starts the manager and the shell channel, runs the main run loop and
// tears both down; the exit status.
int serve(const Options& options) {
    // Consent alerts go to the consent agent that registers on the shell
    // channel.
    sv::SVRecordingSession::setBroadcastLinkWait(
        std::chrono::seconds(options.extensionLinkWaitSeconds));
    auto agents =
        sv::SVConsentAgentRegistry::create(std::chrono::seconds(options.agentWaitSeconds));
    sv::setAlertPresenter(agents);
    sv::SVRecordingManager::Options managerOptions;
    managerOptions.consentAgents = agents;
    managerOptions.adjustableClock = options.testClock;
    managerOptions.trust = sv::SVTrustedExecutables::create(
        {.executables = options.trustedAgents,
         .trustedBundleDirectories = options.trustedBundleDirectories});
    if (options.testClock)
        sv::log::info("sorveld: the clock may be moved through the shell channel");
    sv::startRecordingManager(managerOptions);
    auto manager = sv::sharedRecordingManager();
    if (!manager || !manager->publicListener()) {
        sv::log::error("sorveld: cannot listen on %@; is another instance running?",
                       sv::ipc::servicePath(sv::kDaemonServiceName));
        sv::log::flush();
        return 1;
    }
    auto created = sv::SVShellService::create(manager, agents);
    if (!created) {
        sv::log::error("sorveld: cannot open the shell channel: %@", created.error().message());
        sv::log::flush();
        return 1;
    }
    std::shared_ptr<sv::SVShellService> shell = std::move(*created);
    shell->resume();
    sv::PurgeableSpaceService::shared().startPeriodicCalls(std::chrono::hours(1));
    sv::KeepAlive::shared().armIdleExit(
        std::chrono::seconds(options.idleExitSeconds),
        // Consent agents stay connected while they run; they keep no
        // service alive on their own.
        [agents] { return sv::ipc::openConnectionCount() > agents->agentCount(); },
        [] { sv::MainRunLoop::stop(); });

    sv::MainRunLoop::run();

    // Teardown: stop taking calls from the shell, then release the manager.
    sv::PurgeableSpaceService::shared().stopPeriodicCalls();
    sv::KeepAlive::shared().disarmIdleExit();
    shell->invalidate();
    if (manager->publicListener()) manager->publicListener()->invalidate();
    sv::setAlertPresenter(nullptr);
    manager.reset();
    sv::log::flush();
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    // Every recording runs encoder, writer and capture threads of its own;
    // with an arena per thread (glibc's default allows eight per core) each
    // recording leaves freed memory scattered over arenas that trimming
    // cannot give back, and an idle daemon grew by tens of MB. Two arenas
    // keep it within about 15 MB of its idle size after any number of
    // recordings (bench/soak), before any thread starts.
    mallopt(M_ARENA_MAX, kMallocArenas);
    // A write to a peer that has gone (an X server that exits during a
    // frame) fails with EPIPE instead of ending the service without a line
    // in its log: not every library asks the kernel for that per write (xcb
    // does not). Before any thread starts; the extension sandbox resets it
    // for its children.
    std::signal(SIGPIPE, SIG_IGN);
    // A crash leaves a line in the log, where the queued lines stop.
    sv::log::writeLineOnFatalSignals();
    Options options;
    if (int rc = parse(argc, argv, options)) return rc == -2 ? 0 : rc;
    applySettings(options);
    // Never a shared directory for the movies: without a home, refuse to start.
    if (auto home = sv::MovieStore::shared().homeDirectory(); !home) {
        std::fprintf(stderr, "sorveld: %s; pass --home DIR\n",
                     home.error().localizedDescription().value_or("no home directory").c_str());
        return 1;
    }
    if (!setUpBackends(options)) return 1;

    sv::log::info("sorveld Starting!");
    // A movie that outgrows the file size limit fails its write (EFBIG) and
    // ends its recording like a full disk, instead of killing the service.
    std::signal(SIGXFSZ, SIG_IGN);
    finishRecordingsOnTermination();
    return serve(options);
}
