// Helpers of the support tests: scratch directories and scoped environment.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sv::test {

class TempDir {
  public:
    TempDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "sv-support-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) std::abort();
        path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
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
        if (v)
            setenv(name, v->c_str(), 1);
        else
            unsetenv(name);
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
