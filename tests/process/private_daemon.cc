#include "tests/process/private_daemon.h"

#include <signal.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "platform/ipc/ipc.h"
#include "protocol/service_names.h"
#include "protocol/shell_protocol.h"
#include "tests/process/process_helpers.h"

namespace sv::test {

namespace {

std::string makeRoot(const char* prefix) {
    std::string root = makeTempDir(prefix);
    if (root.empty()) return root;
    mkdir((root + "/home").c_str(), 0700);
    mkdir((root + "/run").c_str(), 0700);
    return root;
}

}  // namespace

PrivateDaemon::PrivateDaemon(const char* prefix)
    : root(makeRoot(prefix)),
      home(root + "/home"),
      run(root + "/run"),
      store(home + "/Library/Sorvel/"),
      logPath(root + "/sorveld.log") {}

PrivateDaemon::~PrivateDaemon() {
    if (pid_ > 0) stop(SIGKILL);
    if (keep_ || root.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

bool PrivateDaemon::start(const std::string& executable, Options options) {
    if (root.empty()) return false;
    ipc::setRuntimeDirectory(run);
    std::vector<std::string> argv{executable, "--runtime-dir", run,      "--home",
                                  home,       "--log-level",   "default"};
    argv.insert(argv.end(), options.args.begin(), options.args.end());
    pid_ = spawnProcess(argv, options.env, logPath, "/dev/null", /*append=*/true);
    return pid_ > 0 && answers(options.answerTimeout);
}

bool PrivateDaemon::answers(std::chrono::milliseconds timeout) const {
    // One purgeable-space call, made again while the connection is refused
    // (nobody listens yet); a connection made before the daemon serves is
    // answered once it does.
    struct Reply {
        std::mutex mutex;
        std::condition_variable cv;
        int state = 0;  // 0 waiting, 1 answered, 2 refused or failed
        void set(int s) {
            std::lock_guard lock(mutex);
            if (state == 0) state = s;
            cv.notify_all();
        }
    };
    const auto end = std::chrono::steady_clock::now() + timeout;
    bool timedOut = false;
    auto attempt = [&] {
        auto reply = std::make_shared<Reply>();
        auto c = ipc::Connection::toService(kShellServiceName);
        c->setRemoteObjectInterface(shellProtocolInterface());
        c->resume();
        c->remoteObjectProxyWithErrorHandler([reply](const Error&) { reply->set(2); })
            .call("purgeableSpaceWithUrgency:handler:", ipc::Arguments().add(int32_t(0)),
                  [reply](const ipc::Received&) { reply->set(1); });
        std::unique_lock lock(reply->mutex);
        reply->cv.wait_until(lock, end, [&] { return reply->state != 0; });
        const int state = reply->state;
        lock.unlock();
        c->invalidate();
        timedOut = state == 0;
        return state != 2;
    };
    return eventually(attempt, timeout) && !timedOut;
}

int PrivateDaemon::stop(int signal, std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    const int status = waitForExit(pid_, timeout);
    pid_ = -1;
    return status;
}

void PrivateDaemon::keep() {
    if (!keep_)
        std::fprintf(stderr, "kept %s (the daemon's log: %s)\n", root.c_str(), logPath.c_str());
    keep_ = true;
}

std::string PrivateDaemon::log() const {
    return readFile(logPath);
}

size_t PrivateDaemon::logCount(const std::string& line) const {
    const std::string text = log();
    size_t n = 0;
    for (size_t at = text.find(line); at != std::string::npos;
         at = text.find(line, at + line.size()))
        ++n;
    return n;
}

bool PrivateDaemon::logged(const std::string& line, size_t count,
                           std::chrono::milliseconds timeout) const {
    return eventually([&] { return logCount(line) >= count; }, timeout);
}

std::vector<std::string> PrivateDaemon::clientEnvironment() const {
    return {"SORVEL_RUNTIME_DIR=" + run};
}

}  // namespace sv::test
