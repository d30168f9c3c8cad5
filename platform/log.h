// The one structured system log. Lines take printf-style formats with the
// placeholders "%@" (text form of an object), "%i"/"%d" (signed 32-bit),
// "%li"/"%ld" (signed platform word), "%u", "%lu", "%s" and "%f" (six
// decimals). Default and error lines are always written; debug lines only
// while debug logging is on. Output goes to journald when the process runs
// under systemd (JOURNAL_STREAM set) and to stderr otherwise; writing is
// asynchronous, so a log call never waits for I/O. Thread-safe.
#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/value.h"

namespace sv::log {

enum class Level { Default, Debug, Error, Console };

struct FormatArg {
    enum Kind { Int, UInt, Double, Text } kind = Text;
    int64_t i = 0;
    uint64_t u = 0;
    double d = 0;
    std::string s;
};

template <typename T>
concept Describable = requires(const T& t) {
    { t.description() } -> std::convertible_to<std::string>;
};

inline FormatArg toArg(const std::string& s) {
    return {FormatArg::Text, 0, 0, 0, s};
}
inline FormatArg toArg(std::string_view s) {
    return {FormatArg::Text, 0, 0, 0, std::string(s)};
}
inline FormatArg toArg(const char* s) {
    return {FormatArg::Text, 0, 0, 0, s ? s : "(null)"};
}
inline FormatArg toArg(bool b) {
    return {FormatArg::Int, b ? 1 : 0, b ? 1u : 0u, 0, {}};
}
inline FormatArg toArg(const Value& v) {
    return {FormatArg::Text, 0, 0, 0, describe(v)};
}
template <std::signed_integral T>
FormatArg toArg(T v) {
    return {FormatArg::Int, int64_t(v), uint64_t(v), double(v), {}};
}
template <std::unsigned_integral T>
requires(!std::same_as<T, bool>) FormatArg toArg(T v) {
    return {FormatArg::UInt, int64_t(v), uint64_t(v), double(v), {}};
}
template <std::floating_point T>
FormatArg toArg(T v) {
    return {FormatArg::Double, int64_t(v), uint64_t(v), double(v), {}};
}
template <typename E>
requires std::is_enum_v<E> FormatArg toArg(E e) {
    return toArg(static_cast<std::underlying_type_t<E>>(e));
}
template <Describable T>
FormatArg toArg(const T& t) {
    return {FormatArg::Text, 0, 0, 0, t.description()};
}
template <typename T>
FormatArg toArg(const std::shared_ptr<T>& p) {
    if (!p) return toArg("(null)");
    return toArg(*p);
}
template <typename T>
FormatArg toArg(const std::optional<T>& o) {
    if (!o) return toArg("(null)");
    return toArg(*o);
}

// Renders `fmt` with the arguments; missing arguments render as "(null)" or 0.
std::string format(std::string_view fmt, std::span<const FormatArg> args);

template <typename... A>
std::string format(std::string_view fmt, const A&... args) {
    FormatArg list[] = {toArg(args)..., FormatArg{}};
    return format(fmt, std::span<const FormatArg>(list, sizeof...(A)));
}

void write(Level level, std::string&& line);
bool isDebugEnabled();
void setDebugEnabled(bool enabled);
// Name under which lines are written (journald SYSLOG_IDENTIFIER); default "sorveld".
void setIdentifier(const std::string& identifier);
// Turns stderr/journald output off (captures still see every line); for tests.
void setOutputEnabled(bool enabled);
// Waits until queued lines have been written.
void flush();
// Makes a signal that ends the process (a crash, abort(), a stray signal
// nobody handles) first write one line to stderr, which journald keeps
// under systemd: "<identifier>[<thread>] <critical> ended by signal 6
// (SIGABRT)". Queued lines die with the process, so without it a crash
// leaves a log that simply stops. Signals whose action is not the default
// (a sanitizer's handler, an ignored signal) are left alone, and each
// signal still takes its default course afterwards (core dump, exit
// status). Call once, on the main thread, before other threads start.
void writeLineOnFatalSignals();

template <typename... A>
void info(std::string_view fmt, const A&... args) {
    write(Level::Default, format(fmt, args...));
}
template <typename... A>
void debug(std::string_view fmt, const A&... args) {
    if (isDebugEnabled()) write(Level::Debug, format(fmt, args...));
}
template <typename... A>
void error(std::string_view fmt, const A&... args) {
    write(Level::Error, format(fmt, args...));
}
// The plain console log (unstructured, straight to stderr) that a few failure
// paths use instead of the system log.
template <typename... A>
void console(std::string_view fmt, const A&... args) {
    write(Level::Console, format(fmt, args...));
}

// Keeps one call site from flooding the log: the first `burst` lines of
// each `interval` are written, later ones only counted; the first line
// written after some were held back is preceded by one line saying how many
// ("suppressed 812 lines like: <format>"). For lines that a peer can cause
// at will (one per message, per connection, per failed call). Thread-safe;
// usually a function-local static, one per call site.
class RateLimit {
  public:
    using Clock = std::chrono::steady_clock;
    explicit RateLimit(size_t burst = 10, Clock::duration interval = std::chrono::seconds(10),
                       std::function<Clock::time_point()> now = Clock::now);
    RateLimit(const RateLimit&) = delete;
    RateLimit& operator=(const RateLimit&) = delete;

    // Whether a line may be written now. When it may, `suppressed` is the
    // number of lines held back since the last one written.
    bool admit(size_t& suppressed);

  private:
    std::mutex mutex_;
    const size_t burst_;
    const Clock::duration interval_;
    const std::function<Clock::time_point()> now_;
    Clock::time_point windowStart_{};
    size_t written_ = 0;     // in the current window
    size_t suppressed_ = 0;  // since the last line written
    bool started_ = false;
};

// Writes the line `render()` makes at `level` if `limit` admits it, with the
// summary of held-back lines (naming `fmt`) first.
void writeLimited(RateLimit& limit, Level level, std::string_view fmt,
                  const std::function<std::string()>& render);

template <typename... A>
void info(RateLimit& limit, std::string_view fmt, const A&... args) {
    writeLimited(limit, Level::Default, fmt, [&] { return format(fmt, args...); });
}
template <typename... A>
void debug(RateLimit& limit, std::string_view fmt, const A&... args) {
    if (isDebugEnabled())
        writeLimited(limit, Level::Debug, fmt, [&] { return format(fmt, args...); });
}
template <typename... A>
void error(RateLimit& limit, std::string_view fmt, const A&... args) {
    writeLimited(limit, Level::Error, fmt, [&] { return format(fmt, args...); });
}

struct Line {
    Level level;
    std::string text;
};

// Records every line written while it exists (from any thread), for tests.
class Capture {
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::vector<Line> lines() const;
    // Number of lines equal to `text` (at `level`, when given).
    size_t count(std::string_view text, std::optional<Level> level = std::nullopt) const;
    bool contains(std::string_view text, std::optional<Level> level = std::nullopt) const {
        return count(text, level) > 0;
    }
    // Number of lines that contain `fragment`.
    size_t countContaining(std::string_view fragment) const;
    void clear();

    void append(Level level, const std::string& text);

  private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace sv::log
