#include "platform/audio/testing/private_pulse_server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "platform/audio/pulse_audio.h"

extern char** environ;

namespace sv::testing {

namespace {

pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& env,
            const std::string& logPath) {
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
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

std::string findPulseaudio() {
    for (const char* p : {"/usr/bin/pulseaudio", "/usr/local/bin/pulseaudio", "/bin/pulseaudio"})
        if (access(p, X_OK) == 0) return p;
    return {};
}

}  // namespace

std::unique_ptr<PrivatePulseServer> PrivatePulseServer::start(const Options& options,
                                                              std::string* whyNot) {
    std::string exe = findPulseaudio();
    if (exe.empty()) {
        if (whyNot) *whyNot = "pulseaudio is not installed";
        return nullptr;
    }
    char tmpl[] = "/tmp/sv-pulse-XXXXXX";
    if (!mkdtemp(tmpl)) {
        if (whyNot) *whyNot = "cannot create a temporary directory";
        return nullptr;
    }
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
    server->pid_ = spawn(
        {exe, "-n", "--daemonize=no", "--system=false", "--exit-idle-time=-1", "--disallow-exit",
         "--use-pid-file=false", "--log-target=stderr", "-F", dir + "/server.pa"},
        env, dir + "/server.log");
    if (server->pid_ < 0) {
        if (whyNot) *whyNot = "cannot run " + exe;
        return nullptr;
    }
    server->address_ = "unix:" + socket;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (waitpid(server->pid_, &status, WNOHANG) == server->pid_) {
            server->pid_ = -1;
            std::ifstream log(dir + "/server.log");
            std::string text((std::istreambuf_iterator<char>(log)), {});
            if (whyNot) *whyNot = "pulseaudio exited at start: " + text.substr(0, 2000);
            return nullptr;
        }
        if (access(socket.c_str(), F_OK) == 0 &&
            PulseAudioBackend::serverAnswers(server->address_, std::chrono::milliseconds(500))) {
            server->warmUp();
            return server;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (whyNot) *whyNot = "pulseaudio did not answer within 10 s";
    return nullptr;
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
        int status = 0;
        for (int i = 0; i < 100; ++i) {
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
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

void PrivatePulseServer::reap(pid_t pid, bool killFirst) {
    if (pid <= 0) return;
    if (killFirst) kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
}

}  // namespace sv::testing
