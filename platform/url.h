// File URLs as the system passes them around ("movie location"): an absolute
// path with its "file://" text form.
#pragma once

#include <optional>
#include <string>

namespace sv {

struct URL {
    std::string path;  // absolute file-system path

    static URL fileURLWithPath(std::string p) { return URL{std::move(p)}; }
    // Parses "file://" URLs (percent-decoding the path); nullopt otherwise.
    static std::optional<URL> parse(const std::string& text);
    // "file://" followed by the percent-encoded path.
    std::string absoluteString() const;
    std::string description() const { return absoluteString(); }
    friend bool operator==(const URL&, const URL&) = default;
};

}  // namespace sv
