#include "platform/url.h"

#include <cctype>

namespace sv {

std::string URL::absoluteString() const {
    static const char* hex = "0123456789ABCDEF";
    std::string out = "file://";
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::optional<URL> URL::parse(const std::string& text) {
    const std::string prefix = "file://";
    if (text.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    std::string p;
    for (size_t i = prefix.size(); i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
                !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
                return std::nullopt;
            p += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            p += c;
        }
    }
    if (p.empty() || p[0] != '/') return std::nullopt;
    return URL{p};
}

}  // namespace sv
