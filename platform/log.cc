#include "platform/log.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include <spdlog/async.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/systemd_sink.h>
#include <spdlog/spdlog.h>

namespace sv::log {
namespace {

struct State {
    std::mutex mutex;
    std::vector<Capture*> captures;
    std::shared_ptr<spdlog::logger> logger;
    std::string identifier = "sorveld";
    std::atomic<bool> debug{false};
    std::atomic<bool> output{true};
    // The writer thread of the async logger. Held here rather than in
    // spdlog's registry: the registry is a static that exit() destroys while
    // other threads (capture, IPC) may still be logging, and a logger whose
    // pool is gone throws from every call. This one lives as long as the
    // process; drainAtExit() writes out what is still queued.
    std::shared_ptr<spdlog::details::thread_pool> pool;

    State() {
        const char* lvl = std::getenv("SORVEL_LOG_LEVEL");
        if (lvl && std::strcmp(lvl, "debug") == 0) debug = true;
        if (lvl && std::strcmp(lvl, "quiet") == 0) output = false;
    }
};

// Never destroyed: log calls may come from threads that outlive static
// destruction at process exit.
State& state() {
    static State* s = new State;
    return *s;
}

// Runs at exit on the exiting thread: wait (bounded) for the writer thread
// to empty its queue, so that the last lines before exit are not lost.
void drainAtExit() {
    std::shared_ptr<spdlog::details::thread_pool> pool;
    {
        std::lock_guard lock(state().mutex);
        pool = state().pool;
    }
    if (!pool) return;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (pool->queue_size() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::fflush(stderr);
}

// Called with the state's mutex held.
std::shared_ptr<spdlog::logger> makeLogger(const std::string& identifier) {
    spdlog::sink_ptr sink;
    if (std::getenv("JOURNAL_STREAM"))
        sink = std::make_shared<spdlog::sinks::systemd_sink_mt>(identifier);
    if (!sink) sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    State& s = state();
    if (!s.pool) {
        s.pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
        std::atexit(drainAtExit);
    }
    auto logger = std::make_shared<spdlog::async_logger>(
        identifier, sink, s.pool, spdlog::async_overflow_policy::overrun_oldest);
    logger->set_level(spdlog::level::trace);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %n[%t] <%l> %v");
    return logger;
}

void appendFormatted(std::string& out, const std::string& directive, const FormatArg& a, char conv,
                     int lengthMod) {
    char buf[128];
    std::string f = directive;
    switch (conv) {
        case 'd':
        case 'i': {
            if (lengthMod == 0) {
                std::snprintf(buf, sizeof buf, (f + "d").c_str(), static_cast<int32_t>(a.i));
            } else {
                std::snprintf(buf, sizeof buf, (f + "lld").c_str(), static_cast<long long>(a.i));
            }
            out += buf;
            return;
        }
        case 'u':
        case 'x':
        case 'X': {
            const char c[2] = {conv, 0};
            if (lengthMod == 0) {
                std::snprintf(buf, sizeof buf, (f + c).c_str(), static_cast<uint32_t>(a.u));
            } else {
                std::snprintf(buf, sizeof buf, (f + "ll" + c).c_str(),
                              static_cast<unsigned long long>(a.u));
            }
            out += buf;
            return;
        }
        case 'f':
        case 'g':
        case 'e': {
            const char c[2] = {conv, 0};
            double d = a.kind == FormatArg::Double ? a.d
                       : a.kind == FormatArg::UInt ? double(a.u)
                                                   : double(a.i);
            std::snprintf(buf, sizeof buf, (f + c).c_str(), d);
            out += buf;
            return;
        }
        default:  // '@' and 's'
            if (a.kind == FormatArg::Text) {
                out += a.s;
            } else if (a.kind == FormatArg::Double) {
                std::snprintf(buf, sizeof buf, "%g", a.d);
                out += buf;
            } else if (a.kind == FormatArg::UInt) {
                out += std::to_string(a.u);
            } else {
                out += std::to_string(a.i);
            }
    }
}

}  // namespace

std::string format(std::string_view fmt, std::span<const FormatArg> args) {
    static const FormatArg kNull{FormatArg::Text, 0, 0, 0, "(null)"};
    std::string out;
    out.reserve(fmt.size() + 16);
    size_t next = 0;
    for (size_t i = 0; i < fmt.size(); ++i) {
        char ch = fmt[i];
        if (ch != '%') {
            out += ch;
            continue;
        }
        if (i + 1 < fmt.size() && fmt[i + 1] == '%') {
            out += '%';
            ++i;
            continue;
        }
        // %[flags][width][.precision][length]conversion
        size_t j = i + 1;
        std::string directive = "%";
        while (j < fmt.size() && std::strchr("-+ #0", fmt[j])) directive += fmt[j++];
        while (j < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[j])))
            directive += fmt[j++];
        if (j < fmt.size() && fmt[j] == '.') {
            directive += fmt[j++];
            while (j < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[j])))
                directive += fmt[j++];
        }
        int lengthMod = 0;
        while (j < fmt.size() &&
               (fmt[j] == 'l' || fmt[j] == 'h' || fmt[j] == 'z' || fmt[j] == 'q')) {
            if (fmt[j] == 'l' || fmt[j] == 'z' || fmt[j] == 'q') ++lengthMod;
            ++j;
        }
        if (j >= fmt.size() || !std::strchr("@diuxXfgesc", fmt[j])) {
            out.append(fmt.substr(i, j - i + (j < fmt.size() ? 1 : 0)));
            i = j;
            continue;
        }
        const FormatArg& a = next < args.size() ? args[next] : kNull;
        ++next;
        appendFormatted(out, directive, a, fmt[j] == 'c' ? 's' : fmt[j], lengthMod);
        i = j;
    }
    return out;
}

void write(Level level, std::string&& line) {
    State& s = state();
    std::shared_ptr<spdlog::logger> logger;
    {
        std::lock_guard lock(s.mutex);
        for (Capture* c : s.captures) c->append(level, line);
        if (!s.output) return;
        if (level != Level::Console) {
            if (!s.logger) s.logger = makeLogger(s.identifier);
            logger = s.logger;
        }
    }
    switch (level) {
        case Level::Default:
            logger->info(line);
            break;
        case Level::Debug:
            logger->debug(line);
            break;
        case Level::Error:
            logger->error(line);
            break;
        case Level::Console:
            line += '\n';
            std::fwrite(line.data(), 1, line.size(), stderr);
            break;
    }
}

bool isDebugEnabled() {
    return state().debug.load(std::memory_order_relaxed);
}
void setDebugEnabled(bool enabled) {
    state().debug = enabled;
}
void setOutputEnabled(bool enabled) {
    state().output = enabled;
}

void setIdentifier(const std::string& identifier) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    s.identifier = identifier;
    s.logger.reset();
}

namespace {

struct FatalSignal {
    int number;
    const char* name;
};
// Signals whose default action ends the process, short of SIGKILL and
// SIGTERM/SIGINT (which services handle), SIGPIPE and SIGXFSZ (which they
// ignore) and SIGTRAP (a debugger's).
constexpr FatalSignal kFatalSignals[] = {
    {SIGHUP, "SIGHUP"},   {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},   {SIGABRT, "SIGABRT"},
    {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},   {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"},
    {SIGUSR2, "SIGUSR2"}, {SIGALRM, "SIGALRM"}, {SIGSYS, "SIGSYS"},   {SIGXCPU, "SIGXCPU"}};

// The identifier as of writeLineOnFatalSignals(), for the handler (which
// may take no lock).
char fatalIdentifier[64];

// In whatever thread the signal hit: async-signal-safe calls only, no
// allocation and no lock.
void onFatalSignal(int number, siginfo_t* info, void*) {
    const int savedErrno = errno;
    char line[160];
    size_t n = 0;
    auto put = [&](const char* text) {
        while (*text && n < sizeof line - 1) line[n++] = *text++;
    };
    auto putNumber = [&](unsigned long v) {
        char digits[24];
        size_t d = 0;
        do digits[d++] = char('0' + v % 10);
        while ((v /= 10) != 0);
        while (d > 0 && n < sizeof line - 1) line[n++] = digits[--d];
    };
    const char* name = "?";
    for (const FatalSignal& s : kFatalSignals)
        if (s.number == number) name = s.name;
    put(fatalIdentifier);
    put("[");
    putNumber(unsigned(::gettid()));
    put("] <critical> ended by signal ");
    putNumber(unsigned(number));
    put(" (");
    put(name);
    put(")\n");
    (void)!::write(STDERR_FILENO, line, n);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(number, &dfl, nullptr);
    // A fault comes back when the handler returns (the instruction runs
    // again) and then takes its default course; a signal that a process or
    // abort() sent is sent again, delivered once the handler returns.
    const bool fault =
        info && info->si_code > 0 &&
        (number == SIGSEGV || number == SIGBUS || number == SIGILL || number == SIGFPE);
    if (!fault) raise(number);
    errno = savedErrno;
}

}  // namespace

void writeLineOnFatalSignals() {
    {
        std::lock_guard lock(state().mutex);
        std::snprintf(fatalIdentifier, sizeof fatalIdentifier, "%s", state().identifier.c_str());
    }
    for (const FatalSignal& s : kFatalSignals) {
        struct sigaction current {};
        if (sigaction(s.number, nullptr, &current) != 0) continue;
        if ((current.sa_flags & SA_SIGINFO) || current.sa_handler != SIG_DFL) continue;
        struct sigaction action {};
        action.sa_sigaction = onFatalSignal;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        sigaction(s.number, &action, nullptr);
    }
}

void flush() {
    std::shared_ptr<spdlog::logger> logger;
    {
        std::lock_guard lock(state().mutex);
        logger = state().logger;
    }
    if (logger) logger->flush();
    std::fflush(stderr);
}

RateLimit::RateLimit(size_t burst, Clock::duration interval, std::function<Clock::time_point()> now)
    : burst_(burst), interval_(interval), now_(std::move(now)) {}

bool RateLimit::admit(size_t& suppressed) {
    Clock::time_point t = now_();
    std::lock_guard lock(mutex_);
    if (!started_ || t - windowStart_ >= interval_) {
        started_ = true;
        windowStart_ = t;
        written_ = 0;
    }
    if (written_ >= burst_) {
        ++suppressed_;
        return false;
    }
    ++written_;
    suppressed = std::exchange(suppressed_, 0);
    return true;
}

void writeLimited(RateLimit& limit, Level level, std::string_view fmt,
                  const std::function<std::string()>& render) {
    size_t suppressed = 0;
    if (!limit.admit(suppressed)) return;
    if (suppressed > 0)
        write(level, format("suppressed %lu lines like: %@", suppressed, std::string(fmt)));
    write(level, render());
}

Capture::Capture() {
    std::lock_guard lock(state().mutex);
    state().captures.push_back(this);
}

Capture::~Capture() {
    std::lock_guard lock(state().mutex);
    auto& v = state().captures;
    v.erase(std::remove(v.begin(), v.end(), this), v.end());
}

void Capture::append(Level level, const std::string& text) {
    std::lock_guard lock(mutex_);
    lines_.push_back({level, text});
}

std::vector<Line> Capture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

size_t Capture::count(std::string_view text, std::optional<Level> level) const {
    std::lock_guard lock(mutex_);
    return std::count_if(lines_.begin(), lines_.end(), [&](const Line& l) {
        return l.text == text && (!level || l.level == *level);
    });
}

size_t Capture::countContaining(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    return std::count_if(lines_.begin(), lines_.end(),
                         [&](const Line& l) { return l.text.find(fragment) != std::string::npos; });
}

void Capture::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

}  // namespace sv::log
