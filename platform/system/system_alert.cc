#include "platform/system/system_alert.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "platform/dispatch.h"
#include "platform/log.h"

namespace sv {

const char* alertResponseName(AlertResponse response) {
    switch (response) {
        case AlertResponse::Default:
            return kAlertResponseDefaultName;
        case AlertResponse::Alternate:
            return kAlertResponseAlternateName;
        case AlertResponse::Other:
            return kAlertResponseOtherName;
        case AlertResponse::Cancelled:
            break;
    }
    return kAlertResponseCancelName;
}

std::optional<AlertResponse> parseAlertResponse(std::string_view name) {
    if (name == kAlertResponseDefaultName) return AlertResponse::Default;
    if (name == kAlertResponseAlternateName) return AlertResponse::Alternate;
    if (name == kAlertResponseOtherName) return AlertResponse::Other;
    if (name == kAlertResponseCancelName) return AlertResponse::Cancelled;
    return std::nullopt;
}

namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD

void appendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

// Decodes one UTF-8 sequence at `i`; returns its code point and advances `i`,
// or returns nullopt and advances by one byte for an invalid sequence
// (overlong forms, surrogates and values above U+10FFFF are invalid).
std::optional<uint32_t> decodeUtf8(std::string_view s, size_t& i) {
    auto b = static_cast<unsigned char>(s[i]);
    size_t len;
    uint32_t cp, min;
    if (b < 0x80) {
        ++i;
        return b;
    } else if ((b & 0xE0) == 0xC0) {
        len = 2, cp = b & 0x1F, min = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
        len = 3, cp = b & 0x0F, min = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
        len = 4, cp = b & 0x07, min = 0x10000;
    } else {
        ++i;
        return std::nullopt;
    }
    if (i + len > s.size()) {
        ++i;
        return std::nullopt;
    }
    for (size_t k = 1; k < len; ++k) {
        auto c = static_cast<unsigned char>(s[i + k]);
        if ((c & 0xC0) != 0x80) {
            ++i;
            return std::nullopt;
        }
        cp = (cp << 6) | (c & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return std::nullopt;
    }
    i += len;
    return cp;
}

bool isBidiControl(uint32_t cp) {
    return (cp >= 0x202A && cp <= 0x202E) || (cp >= 0x2066 && cp <= 0x2069);
}

// `multiline`: the message keeps newlines and tabs ("\r\n" and "\r" become
// "\n"); elsewhere they become spaces.
std::string safeText(std::string_view s, bool multiline) {
    std::string out;
    out.reserve(s.size());
    size_t i = 0;
    while (i < s.size()) {
        auto cp = decodeUtf8(s, i);
        if (!cp) {
            out += kReplacement;
            continue;
        }
        uint32_t c = *cp;
        if (c == '\r') {
            if (i < s.size() && s[i] == '\n') ++i;
            c = '\n';
        }
        if (c == '\n' || c == '\t') {
            out += multiline ? char(c) : ' ';
        } else if (c < 0x20 || c == 0x7F || (c >= 0x80 && c <= 0x9F) || isBidiControl(c)) {
            out += kReplacement;
        } else {
            appendUtf8(out, c);
        }
    }
    return out;
}

Error invalidRequest(const std::string& why) {
    return Error::make(kSystemAlertErrorDomain, kSystemAlertErrorInvalidRequest, why);
}

// The text under `key`; nullopt when an optional key is absent or null.
Result<std::optional<std::string>> textField(const Value& v, const char* key, bool optional) {
    auto it = v.find(key);
    if (it == v.end() || it->is_null()) {
        if (!optional) return invalidRequest(std::string("alert without \"") + key + "\"");
        return std::optional<std::string>();
    }
    if (!it->is_string()) return invalidRequest(std::string("alert's \"") + key + "\" is not text");
    return std::optional<std::string>(it->get<std::string>());
}

}  // namespace

std::vector<std::pair<AlertResponse, std::string>> AlertRequest::buttons() const {
    std::vector<std::pair<AlertResponse, std::string>> list;
    list.emplace_back(AlertResponse::Default, defaultButton);
    if (alternateButton && !alternateButton->empty())
        list.emplace_back(AlertResponse::Alternate, *alternateButton);
    if (otherButton && !otherButton->empty()) list.emplace_back(AlertResponse::Other, *otherButton);
    return list;
}

Result<void> AlertRequest::validate() const {
    if (defaultButton.empty()) return invalidRequest("an alert needs a default button");
    if (title.size() > kAlertMaxTitleBytes) return invalidRequest("alert title too long");
    if (message.size() > kAlertMaxMessageBytes) return invalidRequest("alert message too long");
    for (const auto* b : {&alternateButton, &otherButton})
        if (*b && (*b)->size() > kAlertMaxButtonBytes)
            return invalidRequest("alert button title too long");
    if (defaultButton.size() > kAlertMaxButtonBytes)
        return invalidRequest("alert button title too long");
    if (options & ~kAlertLevelMask) return invalidRequest("unknown alert options");
    if (timeout.count() < 0) return invalidRequest("negative alert time-out");
    return {};
}

AlertRequest AlertRequest::sanitized() const {
    AlertRequest r = *this;
    r.title = safeText(title, false);
    r.message = safeText(message, true);
    r.defaultButton = safeText(defaultButton, false);
    for (auto* b : {&r.alternateButton, &r.otherButton}) {
        if (*b) **b = safeText(**b, false);
        if (*b && (*b)->empty()) b->reset();
    }
    return r;
}

Value AlertRequest::toValue() const {
    Value v = Value::object();
    v[kAlertTitleKey] = title;
    v[kAlertMessageKey] = message;
    v[kAlertDefaultButtonKey] = defaultButton;
    v[kAlertAlternateButtonKey] =
        alternateButton && !alternateButton->empty() ? Value(*alternateButton) : Value(nullptr);
    v[kAlertOtherButtonKey] =
        otherButton && !otherButton->empty() ? Value(*otherButton) : Value(nullptr);
    return v;
}

Result<AlertRequest> AlertRequest::fromValue(const Value& value) {
    if (!value.is_object()) return invalidRequest("alert is not a dictionary");
    auto title = textField(value, kAlertTitleKey, false);
    if (!title) return title.error();
    auto message = textField(value, kAlertMessageKey, false);
    if (!message) return message.error();
    auto def = textField(value, kAlertDefaultButtonKey, false);
    if (!def) return def.error();
    auto alternate = textField(value, kAlertAlternateButtonKey, true);
    if (!alternate) return alternate.error();
    auto other = textField(value, kAlertOtherButtonKey, true);
    if (!other) return other.error();
    AlertRequest r;
    r.title = **title;
    r.message = **message;
    r.defaultButton = **def;
    r.alternateButton = *alternate;
    r.otherButton = *other;
    if (auto valid = r.validate(); !valid) return valid.error();
    return r;
}

std::string AlertRequest::description() const {
    // For log lines: short, one line, nothing that could forge another line.
    auto shortText = [](const std::string& text) {
        std::string safe = safeText(text, false);
        if (safe.size() <= 64) return safe;
        size_t cut = 64;
        while (cut > 0 && (static_cast<unsigned char>(safe[cut]) & 0xC0) == 0x80) --cut;
        return safe.substr(0, cut) + "...";
    };
    std::string s = "<alert \"" + shortText(title) + "\"";
    for (const auto& [role, text] : buttons())
        s += std::string(" ") + alertResponseName(role) + "=\"" + shortText(text) + "\"";
    return s + ">";
}

// ---- answers

struct SystemAlert::State {
    uint64_t id = 0;
    std::weak_ptr<AlertPresenter> presenter;
    std::mutex mutex;
    std::condition_variable answered;
    std::optional<AlertResponse> response;
    std::vector<std::function<void(AlertResponse)>> responseHandlers;

    bool finishing = false;  // an answer is claimed, not yet delivered

    // True when this call gave the answer. `beforeDelivery` runs once the
    // answer is claimed and before anyone sees it, so that a caller told
    // Cancelled can rely on the alert being off the screen already.
    bool finish(AlertResponse r, const std::function<void()>& beforeDelivery = {}) {
        {
            std::lock_guard lock(mutex);
            if (response || finishing) return false;
            finishing = true;
        }
        if (beforeDelivery) beforeDelivery();
        std::vector<std::function<void(AlertResponse)>> handlers;
        {
            std::lock_guard lock(mutex);
            response = r;
            handlers.swap(responseHandlers);
        }
        answered.notify_all();
        for (auto& h : handlers) h(r);
        log::debug("SystemAlert: alert %lu answered %@", id, alertResponseName(r));
        return true;
    }

    // Takes an unanswered alert down: it answers Cancelled and its presenter
    // is told to withdraw it.
    void withdraw() {
        finish(AlertResponse::Cancelled, [this] {
            if (auto p = presenter.lock()) p->withdrawAlert(id);
        });
    }
};

struct AlertReply::Token {
    std::shared_ptr<SystemAlert::State> state;
    explicit Token(std::shared_ptr<SystemAlert::State> s) : state(std::move(s)) {}
    // Every copy of the reply is gone: a presenter that drops an alert (or
    // goes away) never leaves its caller waiting.
    ~Token() {
        if (state->finish(AlertResponse::Cancelled))
            log::debug("SystemAlert: alert %lu dropped unanswered by its presenter", state->id);
    }
};

void AlertReply::operator()(AlertResponse response) const {
    if (token_) token_->state->finish(response);
}

bool AlertReply::isAnswered() const {
    if (!token_) return true;
    std::lock_guard lock(token_->state->mutex);
    return token_->state->response.has_value();
}

uint64_t AlertReply::alertID() const {
    return token_ ? token_->state->id : 0;
}

// ---- the process's presenter

namespace {
std::mutex gPresenterMutex;
std::shared_ptr<AlertPresenter>& presenterSlot() {
    static auto* slot = new std::shared_ptr<AlertPresenter>;
    return *slot;
}
std::atomic<uint64_t> gNextAlertID{1};
}  // namespace

void setAlertPresenter(std::shared_ptr<AlertPresenter> presenter) {
    std::shared_ptr<AlertPresenter> previous;
    {
        std::lock_guard lock(gPresenterMutex);
        previous = std::exchange(presenterSlot(), std::move(presenter));
    }
    // `previous` may be released here, outside the lock: its destructor may
    // answer alerts.
}

std::shared_ptr<AlertPresenter> alertPresenter() {
    std::lock_guard lock(gPresenterMutex);
    return presenterSlot();
}

// ---- the alert

SystemAlert::SystemAlert(AlertRequest request, std::shared_ptr<State> state)
    : request_(std::move(request)), state_(std::move(state)) {}

SystemAlert::~SystemAlert() {
    timer_.reset();
    state_->withdraw();
}

Result<std::shared_ptr<SystemAlert>> SystemAlert::create(
    const std::string& title, const std::string& message, const std::string& defaultButton,
    const std::optional<std::string>& alternateButton,
    const std::optional<std::string>& otherButton, uint32_t options) {
    AlertRequest r;
    r.title = title;
    r.message = message;
    r.defaultButton = defaultButton;
    r.alternateButton = alternateButton;
    r.otherButton = otherButton;
    r.options = options;
    return create(std::move(r));
}

Result<std::shared_ptr<SystemAlert>> SystemAlert::create(AlertRequest request) {
    return create(std::move(request), alertPresenter());
}

Result<std::shared_ptr<SystemAlert>> SystemAlert::create(
    AlertRequest request, const std::shared_ptr<AlertPresenter>& presenter) {
    auto fail = [&](SystemAlertErrorCode code, const std::string& why) {
        log::error("SystemAlert: cannot show %@: %@", request.description(), why);
        return Error::make(kSystemAlertErrorDomain, code, why);
    };
    request = request.sanitized();
    if (auto valid = request.validate(); !valid)
        return fail(kSystemAlertErrorInvalidRequest, valid.error().message());
    if (!presenter) return fail(kSystemAlertErrorNoPresenter, "no alert presenter is installed");

    auto state = std::make_shared<State>();
    state->id = gNextAlertID.fetch_add(1);
    state->presenter = presenter;
    AlertReply reply(std::make_shared<AlertReply::Token>(state));
    if (auto shown = presenter->presentAlert(state->id, request, std::move(reply)); !shown) {
        // Whatever the presenter kept of the reply must not answer an alert
        // that was never shown as Cancelled later on: mark it answered now.
        state->finish(AlertResponse::Cancelled);
        return fail(kSystemAlertErrorUnavailable, shown.error().message());
    }
    log::debug("SystemAlert: showing alert %lu %@", state->id, request.description());
    auto alert = std::shared_ptr<SystemAlert>(new SystemAlert(request, state));
    if (request.timeout.count() > 0) {
        std::weak_ptr<State> weak = state;
        alert->timer_ = Timer::schedule(
            DispatchQueue::global(), request.timeout, std::chrono::nanoseconds(0), [weak] {
                if (auto s = weak.lock()) {
                    log::info("SystemAlert: alert %lu timed out", s->id);
                    s->withdraw();
                }
            });
    }
    return alert;
}

AlertResponse SystemAlert::waitForResponse() {
    std::unique_lock lock(state_->mutex);
    state_->answered.wait(lock, [&] { return state_->response.has_value(); });
    return *state_->response;
}

std::optional<AlertResponse> SystemAlert::waitForResponseFor(std::chrono::nanoseconds timeout) {
    std::unique_lock lock(state_->mutex);
    state_->answered.wait_for(lock, timeout, [&] { return state_->response.has_value(); });
    return state_->response;
}

void SystemAlert::notifyOnResponse(std::function<void(AlertResponse)> handler) {
    if (!handler) return;
    std::optional<AlertResponse> answered;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->response)
            answered = state_->response;
        else
            state_->responseHandlers.push_back(std::move(handler));
    }
    if (answered) handler(*answered);
}

std::optional<AlertResponse> SystemAlert::response() const {
    std::lock_guard lock(state_->mutex);
    return state_->response;
}

void SystemAlert::cancel() {
    state_->withdraw();
}

uint64_t SystemAlert::identifier() const {
    return state_->id;
}

}  // namespace sv
