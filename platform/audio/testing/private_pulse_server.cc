#include "platform/audio/testing/private_pulse_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string_view>

#include "platform/audio/pulse_audio.h"
#include "platform/audio/pulse_handles.h"

extern char** environ;

namespace sv::testing {

namespace {

// `holdUsr1`: the child starts with SIGUSR1 blocked, so that one sent at
// any time after the spawn stays pending until it waits for it.
pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& env,
            const std::string& logPath, bool holdUsr1 = false) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> envStore;
    for (char** e = environ; *e; ++e) {
        std::string kv(*e);
        bool overridden = false;
        for (auto& o : env)
            if (kv.substr(0, kv.find('=') + 1) == o.substr(0, o.find('=') + 1)) overridden = true;
        // Our sanitizer and log settings are not the child's business.
        if (!overridden) envStore.push_back(kv);
    }
    for (auto& o : env) envStore.push_back(o);
    std::vector<char*> envp;
    for (auto& e : envStore) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!logPath.empty()) {
        posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    }
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    if (holdUsr1) {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGUSR1);
        posix_spawnattr_setsigmask(&attr, &blocked);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    }
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &actions, &attr, argv.data(), envp.data());
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

// A descriptor that becomes readable when process `pid` (a child) ends, or
// -1 when the kernel offers none.
int openPidfd(pid_t pid) {
    return int(syscall(SYS_pidfd_open, pid, 0));
}

// Waits up to `timeout` for child `pid` to end and reaps it; false when it
// is still running then.
bool reapWithin(pid_t pid, std::chrono::milliseconds timeout) {
    int status = 0;
    if (int fd = openPidfd(pid); fd >= 0) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, int(timeout.count()));
        close(fd);
        return ready > 0 && waitpid(pid, &status, 0) == pid;
    }
    // Without pidfds (old kernels) only an exit that already happened counts.
    return waitpid(pid, &status, WNOHANG) == pid;
}

// A datagram socket at `path` on which a service started with
// NOTIFY_SOCKET=`path` reports "READY=1" (the server does once its modules
// are loaded and it listens).
class ReadinessSocket {
  public:
    explicit ReadinessSocket(const std::string& path)
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (fd_ < 0 || path.size() >= sizeof addr.sun_path) return;
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~ReadinessSocket() {
        if (fd_ >= 0) close(fd_);
    }
    ReadinessSocket(const ReadinessSocket&) = delete;
    ReadinessSocket& operator=(const ReadinessSocket&) = delete;

    bool usable() const { return bound_; }

    enum class Outcome { Ready, Exited, TimedOut };
    // Waits for "READY=1" from the service, or for child `pid` to end.
    Outcome wait(pid_t pid, std::chrono::steady_clock::time_point deadline) {
        const int pidfd = openPidfd(pid);
        Outcome outcome = Outcome::TimedOut;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) break;
            pollfd fds[2] = {{fd_, POLLIN, 0}, {pidfd, POLLIN, 0}};
            if (poll(fds, pidfd >= 0 ? 2 : 1, int(left.count())) < 0 && errno != EINTR) break;
            if (fds[0].revents & POLLIN) {
                char buf[4096];
                ssize_t n = recv(fd_, buf, sizeof buf - 1, 0);
                if (n > 0 &&
                    std::string_view(buf, size_t(n)).find("READY=1") != std::string_view::npos) {
                    outcome = Outcome::Ready;
                    break;
                }
            }
            if (pidfd >= 0 && (fds[1].revents & POLLIN)) {
                outcome = Outcome::Exited;
                break;
            }
        }
        if (pidfd >= 0) close(pidfd);
        return outcome;
    }

  private:
    int fd_;
    bool bound_ = false;
};

// A short-lived client of the private server on a main loop of its own,
// driven on the calling thread: waits for the connection and for the
// server's playback streams, each with a deadline, on the server's events.
class ServerProbe {
  public:
    ServerProbe() : loop_(pa_mainloop_new()) {
        if (loop_) context_.reset(pa_context_new(pa_mainloop_get_api(loop_.get()), "sv-probe"));
    }
    // The context goes before the loop it runs on.
    ~ServerProbe() { context_.reset(); }

    // Connects to the running server at `address`; false on failure or at
    // the deadline.
    bool connect(const std::string& address, std::chrono::steady_clock::time_point deadline) {
        if (!context_) return false;
        pa_context_set_state_callback(context_.get(), &ServerProbe::onState, this);
        if (pa_context_connect(context_.get(), address.c_str(), PA_CONTEXT_NOAUTOSPAWN, nullptr) <
            0)
            return false;
        runUntil(deadline, [&] { return state_ == PA_CONTEXT_READY || !ok(); });
        return state_ == PA_CONTEXT_READY;
    }

    // After connect(): waits until the server has `count` playback streams
    // of process `pid`, following the server's sink-input events.
    bool waitForPlaybackStreams(pid_t pid, size_t count,
                                std::chrono::steady_clock::time_point deadline) {
        pid_ = pid;
        pa_context_set_subscribe_callback(
            context_.get(),
            [](pa_context*, pa_subscription_event_type_t, uint32_t, void* u) {
                static_cast<ServerProbe*>(u)->stale_ = true;
            },
            this);
        pulse::Operation subscribed(pa_context_subscribe(
            context_.get(), PA_SUBSCRIPTION_MASK_SINK_INPUT, nullptr, nullptr));
        if (!subscribed) return false;
        stale_ = true;
        pulse::Operation listing;
        runUntil(deadline, [&] {
            if (found_ >= count || !ok()) return true;
            // Count again after every change, one listing at a time.
            if (stale_ &&
                (!listing || pa_operation_get_state(listing.get()) != PA_OPERATION_RUNNING)) {
                stale_ = false;
                counting_ = 0;
                listing.reset(pa_context_get_sink_input_info_list(context_.get(),
                                                                  &ServerProbe::onSinkInput, this));
                if (!listing) return true;
            }
            return false;
        });
        if (listing) pa_operation_cancel(listing.get());
        return found_ >= count;
    }

  private:
    bool ok() const { return PA_CONTEXT_IS_GOOD(state_) || state_ == PA_CONTEXT_UNCONNECTED; }

    // Runs the loop until `done()` holds or the deadline passes; each
    // iteration sleeps in poll() for at most the time that is left.
    template <typename Done>
    void runUntil(std::chrono::steady_clock::time_point deadline, Done done) {
        while (!done()) {
            auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return;
            if (pa_mainloop_prepare(loop_.get(), int(left.count())) < 0 ||
                pa_mainloop_poll(loop_.get()) < 0 || pa_mainloop_dispatch(loop_.get()) < 0)
                return;
        }
    }

    static void onState(pa_context* c, void* u) {
        static_cast<ServerProbe*>(u)->state_ = pa_context_get_state(c);
    }

    static void onSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* u) {
        auto* self = static_cast<ServerProbe*>(u);
        if (eol) {
            self->found_ = self->counting_;
            return;
        }
        const char* text =
            info ? pa_proplist_gets(info->proplist, PA_PROP_APPLICATION_PROCESS_ID) : nullptr;
        if (text && std::strtol(text, nullptr, 10) == self->pid_) ++self->counting_;
    }

    pulse::Mainloop loop_;
    pulse::Context context_;
    pa_context_state_t state_ = PA_CONTEXT_UNCONNECTED;
    bool stale_ = false;
    pid_t pid_ = 0;
    size_t counting_ = 0;
    size_t found_ = 0;
};

std::string findPulseaudio() {
    for (const char* p : {"/usr/bin/pulseaudio", "/usr/local/bin/pulseaudio", "/bin/pulseaudio"})
        if (access(p, X_OK) == 0) return p;
    return {};
}

Error cannotStart(const std::string& why) {
    return Error::make(kPulseServerErrorDomain, kPulseServerErrorCannotStart, why);
}

}  // namespace

Result<std::unique_ptr<PrivatePulseServer>> PrivatePulseServer::start(const Options& options) {
    std::string exe = findPulseaudio();
    if (exe.empty()) return cannotStart("pulseaudio is not installed");
    char tmpl[] = "/tmp/sv-pulse-XXXXXX";
    if (!mkdtemp(tmpl)) return cannotStart("cannot create a temporary directory");
    std::unique_ptr<PrivatePulseServer> server(new PrivatePulseServer);
    server->dir_ = tmpl;
    const std::string dir = server->dir_;
    for (const char* sub : {"/runtime", "/state", "/config"}) mkdir((dir + sub).c_str(), 0700);
    const std::string socket = dir + "/runtime/native";
    {
        std::ofstream script(dir + "/server.pa");
        script << "load-module module-null-sink sink_name=sv_null rate=44100\n"
               << "load-module module-native-protocol-unix auth-anonymous=1 socket=" << socket
               << "\n"
               // The microphone: a sine played into a sink of its own, whose
               // monitor is the default source (paced like a real device,
               // unlike module-sine-source, which hands over its audio in
               // bursts of up to 2 s).
               << "load-module module-null-sink sink_name=sv_mic rate=44100 channels=1\n"
               << "load-module module-sine sink=sv_mic frequency=" << int(options.sineFrequency)
               << "\n"
               // A permanent low-latency reader keeps that sink rendering in
               // small blocks instead of the idle null sink's 2 s ones.
               << "load-module module-loopback source=sv_mic.monitor sink=sv_null latency_msec=20 "
                  "source_dont_move=true sink_dont_move=true\n"
               << "set-default-sink sv_null\n"
               << "set-default-source sv_mic.monitor\n";
    }
    server->exe_ = exe;
    if (auto launched = server->launch(); !launched) return launched.error();
    return server;
}

Result<void> PrivatePulseServer::launch() {
    const std::string& dir = dir_;
    const std::string socket = dir + "/runtime/native";
    // As root the server insists on a per-user instance in HOME and the
    // runtime path, and must not exit by itself; no session bus is needed.
    std::vector<std::string> env = {
        "HOME=" + dir,
        "XDG_RUNTIME_DIR=" + dir + "/runtime",
        "PULSE_RUNTIME_PATH=" + dir + "/runtime",
        "PULSE_STATE_PATH=" + dir + "/state",
        "XDG_CONFIG_HOME=" + dir + "/config",
        "DBUS_SESSION_BUS_ADDRESS=disabled:",
        "ASAN_OPTIONS=detect_leaks=0",
    };
    unlink((dir + "/notify").c_str());
    ReadinessSocket readiness(dir + "/notify");
    if (readiness.usable()) env.push_back("NOTIFY_SOCKET=" + dir + "/notify");
    pid_ = spawn(
        {exe_, "-n", "--daemonize=no", "--system=false", "--exit-idle-time=-1", "--disallow-exit",
         "--use-pid-file=false", "--log-target=stderr", "-F", dir + "/server.pa"},
        env, dir + "/server.log");
    if (pid_ < 0) return cannotStart("cannot run " + exe_);
    address_ = "unix:" + socket;
    // The server reports when it is ready (or ends); a server that cannot
    // report is asked once the time is up.
    const auto outcome =
        readiness.usable()
            ? readiness.wait(pid_, std::chrono::steady_clock::now() + std::chrono::seconds(10))
            : ReadinessSocket::Outcome::TimedOut;
    if (outcome != ReadinessSocket::Outcome::Exited &&
        PulseAudioBackend::serverAnswers(address_, std::chrono::seconds(2))) {
        warmUp();
        return {};
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        std::ifstream log(dir + "/server.log");
        std::string text((std::istreambuf_iterator<char>(log)), {});
        return cannotStart("pulseaudio exited at start: " + text.substr(0, 2000));
    }
    return cannotStart("pulseaudio did not answer within 10 s");
}

void PrivatePulseServer::killServer() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    // The dead server's socket stays behind; a client finds nobody there.
}

Result<void> PrivatePulseServer::restart() {
    killServer();
    return launch();
}

void PrivatePulseServer::warmUp() const {
    // A fresh null sink renders its first blocks of up to 2 s before it
    // honours low latencies; wait for the default source to deliver once.
    PulseAudioBackend backend(address_);
    std::mutex mutex;
    std::condition_variable cv;
    bool got = false;
    auto device = backend.defaultAudioDevice();
    if (!device) return;
    int32_t status = 0;
    auto source = backend.openDevice(
        *device, AudioStreamFormat::pcm16(44100, 1, false),
        [&](std::span<const uint8_t>, uint64_t) {
            std::lock_guard lock(mutex);
            got = true;
            cv.notify_all();
        },
        nullptr, &status);
    if (!source) return;
    std::unique_lock lock(mutex);
    cv.wait_for(lock, std::chrono::seconds(5), [&] { return got; });
    lock.unlock();
    source.reset();
}

PrivatePulseServer::~PrivatePulseServer() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        if (!reapWithin(pid_, std::chrono::seconds(2))) {
            kill(pid_, SIGKILL);
            int status = 0;
            waitpid(pid_, &status, 0);
        }
    }
    std::error_code ec;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

pid_t PrivatePulseServer::playTones(const std::vector<double>& frequencies, double seconds,
                                    int delayMs) const {
    std::vector<std::string> args = {SV_TONE_PLAYER_PATH, address_, std::to_string(seconds),
                                     std::to_string(delayMs)};
    for (double f : frequencies) args.push_back(std::to_string(f));
    return spawn(args, {"ASAN_OPTIONS=detect_leaks=0"}, {});
}

bool PrivatePulseServer::required() {
    const char* ci = std::getenv("CI");
    return ci && std::string_view(ci) == "true";
}

bool PrivatePulseServer::waitForPlaybackStreams(pid_t pid, size_t count,
                                                std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    ServerProbe probe;
    return probe.connect(address_, deadline) && probe.waitForPlaybackStreams(pid, count, deadline);
}

pid_t PrivatePulseServer::playTonesOnSignal(const std::vector<double>& frequencies,
                                            double seconds) const {
    // A negative delay: wait for SIGUSR1.
    std::vector<std::string> args = {SV_TONE_PLAYER_PATH, address_, std::to_string(seconds), "-1"};
    for (double f : frequencies) args.push_back(std::to_string(f));
    return spawn(args, {"ASAN_OPTIONS=detect_leaks=0"}, {}, true);
}

void PrivatePulseServer::startPlaying(pid_t player) {
    if (player > 0) kill(player, SIGUSR1);
}

void PrivatePulseServer::reap(pid_t pid, bool killFirst) {
    if (pid <= 0) return;
    if (killFirst) kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
}

}  // namespace sv::testing
