// Helpers shared by the support, media and movie tests: scratch directories,
// scoped environment, and waiting for a completion handler that must come
// exactly once.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <source_location>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/dispatch.h"

namespace sv::test {

class TempDir {
  public:
    TempDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "sv-test-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) std::abort();
        path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!std::getenv("SV_KEEP")) std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

  private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Where a test awaits: std::source_location, or the compiler builtins it is
// made of where the standard library's needs a newer compiler (clang 14 with
// libstdc++ 12, the coverage build).
#if defined(__cpp_lib_source_location)
using SourceLocation = std::source_location;
#else
struct SourceLocation {
    static SourceLocation current(const char* file = __builtin_FILE(),
                                  unsigned line = __builtin_LINE()) {
        return SourceLocation{file, line};
    }
    const char* file_name() const { return file_; }
    unsigned line() const { return line_; }
    const char* file_;
    unsigned line_;
};
#endif

// Handlers that awaitOnce has seen called, checked again when the test that
// awaited them ends: a handler must be called exactly once, and a second call
// may come after awaitOnce returned. Installed as a test event listener on
// first use; the records are shared with the handlers, so a late call
// touches nothing freed.
class HandlerCallAudit : public ::testing::EmptyTestEventListener {
  public:
    struct Record {
        std::atomic<int> calls{0};
        std::string where;
    };

    static HandlerCallAudit& instance() {
        static HandlerCallAudit* audit = [] {
            auto* a = new HandlerCallAudit;  // owned by gtest's listener list
            ::testing::UnitTest::GetInstance()->listeners().Append(a);
            return a;
        }();
        return *audit;
    }

    void add(std::shared_ptr<const Record> record) {
        std::lock_guard lock(mutex_);
        records_.push_back(std::move(record));
    }

    // Runs before the test's result is printed, while failures still count
    // for it.
    void OnTestEnd(const ::testing::TestInfo&) override {
        std::vector<std::shared_ptr<const Record>> records;
        {
            std::lock_guard lock(mutex_);
            records.swap(records_);
        }
        for (const auto& r : records)
            EXPECT_EQ(r->calls.load(), 1) << "handler awaited at " << r->where;
    }

  private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<const Record>> records_;
};

// Starts an operation with `start(handler)`, waits for the handler and checks
// that it comes exactly once: a second call before the wait ends fails here,
// one after it fails the test when it ends (HandlerCallAudit). Returns the
// handler's argument (or nothing for a handler without one).
template <typename... Args, typename Start>
auto awaitOnce(Start&& start, SourceLocation at = SourceLocation::current()) {
    struct State {
        Semaphore done;
        std::shared_ptr<HandlerCallAudit::Record> record =
            std::make_shared<HandlerCallAudit::Record>();
        std::tuple<std::decay_t<Args>...> result;
    };
    auto s = std::make_shared<State>();
    s->record->where = std::string(at.file_name()) + ":" + std::to_string(at.line());
    HandlerCallAudit::instance().add(s->record);
    start(std::function<void(Args...)>([s](Args... args) {
        if (s->record->calls++ == 0) s->result = {std::move(args)...};
        s->done.signal();
    }));
    EXPECT_TRUE(s->done.waitFor(std::chrono::seconds(60))) << "at " << s->record->where;
    EXPECT_EQ(s->record->calls.load(), 1) << "at " << s->record->where;
    if constexpr (sizeof...(Args) == 1) return std::get<0>(s->result);
}

// Values another thread hands over, kept in order; a test waits, bounded,
// for the count or the newest value it needs.
template <typename T>
class Collected {
  public:
    void add(T value) {
        std::lock_guard lock(mutex_);
        items_.push_back(std::move(value));
        changed_.notify_all();
    }
    bool waitFor(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        return waitForItems([n](const std::vector<T>& all) { return all.size() >= n; }, timeout);
    }
    // Waits until `pred` holds for everything collected so far.
    template <typename P>
    bool waitForItems(P pred, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return pred(std::as_const(items_)); });
    }
    std::vector<T> all() const {
        std::lock_guard lock(mutex_);
        return items_;
    }
    size_t size() const {
        std::lock_guard lock(mutex_);
        return items_.size();
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<T> items_;
};

// Sets (or, with nullopt, unsets) environment variables for one scope.
class ScopedEnv {
  public:
    ScopedEnv(std::initializer_list<std::pair<const char*, std::optional<std::string>>> vars) {
        for (const auto& [name, value] : vars) {
            const char* old = std::getenv(name);
            saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
            set(name, value);
        }
    }
    ~ScopedEnv() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) set(it->first, it->second);
    }

  private:
    static void set(const char* name, const std::optional<std::string>& v) {
        v ? setenv(name, v->c_str(), 1) : unsetenv(name);
    }
    std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

// Locale variables all unset except LANGUAGE.
inline ScopedEnv languageEnv(std::optional<std::string> language) {
    return ScopedEnv{{"LANGUAGE", std::move(language)},
                     {"LC_ALL", std::nullopt},
                     {"LC_MESSAGES", std::nullopt},
                     {"LANG", std::nullopt}};
}

}  // namespace sv::test
