// Helpers shared by the support, media and movie tests: scratch directories,
// scoped environment, and waiting for a completion handler.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
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

// Starts an operation with `start(handler)`, waits for the handler and checks
// that it comes exactly once (a second call would follow within a few ms).
// The state is shared with the handler, so a late call touches nothing freed.
// Returns the handler's argument (or nothing for a handler without one).
template <typename... Args, typename Start>
auto awaitOnce(Start&& start) {
    struct State {
        Semaphore done;
        std::atomic<int> calls{0};
        std::tuple<std::decay_t<Args>...> result;
    };
    auto s = std::make_shared<State>();
    start(std::function<void(Args...)>([s](Args... args) {
        if (s->calls++ == 0) s->result = {std::move(args)...};
        s->done.signal();
    }));
    EXPECT_TRUE(s->done.waitFor(std::chrono::seconds(60)));
    usleep(10000);
    EXPECT_EQ(s->calls.load(), 1);
    if constexpr (sizeof...(Args) == 1) return std::get<0>(s->result);
}

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
