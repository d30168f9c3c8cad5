// sorveld: the screen-recording daemon. Starts the recording manager, opens
// the daemon's service and the shell channel, and runs the main run loop
// until SIGTERM or SIGINT (or, when socket-activated, until it has been idle
// for a while).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "client/shell_protocol.h"
#include "daemon/recording_manager.h"
#include "daemon/shell_service.h"
#include "platform/audio/audio_backend.h"
#include "platform/dispatch.h"
#include "platform/ipc/ipc.h"
#include "platform/log.h"
#include "platform/process/keep_alive.h"
#include "platform/process/purgeable_space.h"
#include "platform/process/termination_signals.h"
#include "support/movie_store.h"

namespace {

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
        "  --idle-exit SECONDS   when started by socket activation, end after this long with\n"
        "                        no recording and no connection (default: 60)\n"
        "  -h, --help            show this help\n\n"
        "Services: org.sorvel.sorveld (applications), org.sorvel.sorveld.shell (the\n"
        "operating system's side; see `sorvel shell --help`).\n");
}

struct Options {
    std::string runtimeDirectory, home, logLevel;
    std::optional<sv::AudioBackendKind> audioBackend;
    long idleExitSeconds = 60;
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
        } else if (a == "--idle-exit" && (v = value())) {
            char* end = nullptr;
            o.idleExitSeconds = std::strtol(v, &end, 10);
            if (!*v || *end || o.idleExitSeconds < 0) {
                std::fprintf(stderr, "sorveld: --idle-exit needs a number of seconds\n");
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

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (int rc = parse(argc, argv, options)) return rc == -2 ? 0 : rc;
    if (options.logLevel == "debug") sv::log::setDebugEnabled(true);
    if (options.logLevel == "quiet") sv::log::setOutputEnabled(false);
    if (options.logLevel == "default") {
        sv::log::setDebugEnabled(false);
        sv::log::setOutputEnabled(true);
    }
    if (!options.runtimeDirectory.empty()) sv::ipc::setRuntimeDirectory(options.runtimeDirectory);
    if (!options.home.empty()) sv::MovieStore::shared().setHomeDirectory(options.home);
    // Never a shared directory for the movies: without a home, refuse to start.
    sv::OptionalError homeError;
    if (!sv::MovieStore::shared().homeDirectory(&homeError)) {
        std::fprintf(stderr, "sorveld: %s; pass --home DIR\n",
                     homeError->localizedDescription().value_or("no home directory").c_str());
        return 1;
    }
    // Without the option the backend is chosen when capture is first used.
    if (options.audioBackend && *options.audioBackend != sv::AudioBackendKind::Automatic)
        sv::setProcessAudioBackend(sv::makeAudioBackend(*options.audioBackend));

    sv::log::info("sorveld Starting!");
    sv::stopMainRunLoopOnTerminationSignals();

    sv::startRecordingManager();
    auto manager = sv::sharedRecordingManager();
    if (!manager || !manager->publicListener()) {
        sv::log::error("sorveld: cannot listen on %@; is another instance running?",
                       sv::ipc::servicePath(sv::kDaemonServiceName));
        sv::log::flush();
        return 1;
    }
    std::string error;
    auto shell = sv::SVShellService::create(&error);
    if (!shell) {
        sv::log::error("sorveld: cannot open the shell channel: %@", error);
        sv::log::flush();
        return 1;
    }
    shell->resume();
    sv::PurgeableSpaceService::shared().startPeriodicCalls(std::chrono::hours(1));
    sv::KeepAlive::shared().armIdleExit(
        std::chrono::seconds(options.idleExitSeconds),
        [] { return sv::ipc::openConnectionCount() > 0; }, [] { sv::MainRunLoop::stop(); });

    sv::MainRunLoop::run();

    // Teardown: stop taking calls from the shell, then release the manager.
    sv::PurgeableSpaceService::shared().stopPeriodicCalls();
    sv::KeepAlive::shared().disarmIdleExit();
    shell->invalidate();
    if (manager->publicListener()) manager->publicListener()->invalidate();
    manager.reset();
    sv::log::flush();
    return -1;
}
