#include "platform/error.h"

namespace sv {

std::optional<std::string> Error::localizedDescription() const {
    return stringAt(userInfo, kLocalizedDescriptionKey);
}

std::string Error::description() const {
    std::string s = "Error Domain=" + domain + " Code=" + std::to_string(code);
    if (auto d = localizedDescription()) s += " \"" + *d + "\"";
    return s;
}

std::string Error::message() const {
    if (auto d = localizedDescription()) return *d;
    return description();
}

Value Error::toValue() const {
    return Value{{"domain", domain}, {"code", code}, {"userInfo", userInfo}};
}

std::optional<Error> Error::fromValue(const Value& v) {
    auto domain = stringAt(v, "domain");
    auto code = intAt(v, "code");
    if (!domain || !code) return std::nullopt;
    const Value* info = dictAt(v, "userInfo");
    return Error{*domain, *code, info ? *info : Value::object()};
}

Error Error::make(std::string domain, int64_t code, const std::string& message) {
    Value info = Value::object();
    info[kLocalizedDescriptionKey] = message;
    return Error{std::move(domain), code, std::move(info)};
}

}  // namespace sv
