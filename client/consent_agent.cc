#include "client/consent_agent.h"

#include <algorithm>

#include "client/shell_channel.h"
#include "platform/log.h"
#include "protocol/recording_protocol.h"

namespace sv {

std::optional<ConsentAlert> ConsentAlert::fromValue(const Value& v) {
    if (!v.is_object()) return std::nullopt;
    auto title = stringAt(v, "title");
    auto message = stringAt(v, "message");
    auto decline = stringAt(v, "defaultButton");
    if (!title || !message || !decline) return std::nullopt;
    ConsentAlert a{*title, *message, *decline, std::nullopt, std::nullopt};
    a.alertID = integerOf<uint64_t>(v.value("alertID", Value(0))).value_or(0);
    // Optional buttons: absent, null or text; anything else is malformed.
    for (auto [key, field] : {std::pair{"alternateButton", &a.alternateButton},
                              std::pair{"otherButton", &a.otherButton}}) {
        auto it = v.find(key);
        if (it == v.end() || it->is_null()) continue;
        if (!it->is_string()) return std::nullopt;
        *field = it->get<std::string>();
    }
    return a;
}

Value ConsentAlert::toValue() const {
    return Value{{"title", title},
                 {"message", message},
                 {"defaultButton", defaultButton},
                 {"alternateButton", alternateButton ? Value(*alternateButton) : Value(nullptr)},
                 {"otherButton", otherButton ? Value(*otherButton) : Value(nullptr)}};
}

const char* consentResponseName(ConsentResponse response) {
    switch (response) {
        case ConsentResponse::Default:
            return "default";
        case ConsentResponse::Alternate:
            return "alternate";
        case ConsentResponse::Other:
            return "other";
        case ConsentResponse::Cancel:
            break;
    }
    return "cancel";
}

std::optional<ConsentPolicy> parseConsentPolicy(const std::string& text) {
    if (text == "accept") return ConsentPolicy::Accept;
    if (text == "accept-without-mic") return ConsentPolicy::AcceptWithoutMicrophone;
    if (text == "decline") return ConsentPolicy::Decline;
    return std::nullopt;
}

ConsentResponse responseForPolicy(const ConsentAlert& alert, ConsentPolicy policy) {
    switch (policy) {
        case ConsentPolicy::Accept:
            if (alert.alternateButton) return ConsentResponse::Alternate;
            if (alert.otherButton) return ConsentResponse::Other;
            return ConsentResponse::Cancel;
        case ConsentPolicy::AcceptWithoutMicrophone:
            return alert.otherButton ? ConsentResponse::Other : ConsentResponse::Cancel;
        case ConsentPolicy::Decline:
            return ConsentResponse::Default;
    }
    return ConsentResponse::Cancel;
}

std::vector<std::pair<ConsentResponse, std::string>> buttonsInDisplayOrder(
    const ConsentAlert& alert) {
    std::vector<std::pair<ConsentResponse, std::string>> buttons;
    if (alert.alternateButton)
        buttons.emplace_back(ConsentResponse::Alternate, *alert.alternateButton);
    if (alert.otherButton) buttons.emplace_back(ConsentResponse::Other, *alert.otherButton);
    buttons.emplace_back(ConsentResponse::Default, alert.defaultButton);
    return buttons;
}

std::shared_ptr<ConsentAgent> ConsentAgent::create(Options options) {
    if (options.serviceName.empty()) options.serviceName = kShellServiceName;
    return std::shared_ptr<ConsentAgent>(new ConsentAgent(std::move(options)));
}

ConsentAgent::~ConsentAgent() {
    if (connection_) connection_->invalidate();
}

void ConsentAgent::emit(Event event, const std::string& detail) {
    if (options_.events) options_.events(event, detail);
}

std::shared_ptr<ipc::ExportedObject> ConsentAgent::makeExportedObject() {
    auto table = std::make_shared<ipc::MethodTable>();
    std::weak_ptr<ConsentAgent> w = weak_from_this();
    table->on(method::kPresentAlert, [w](ipc::Invocation& inv) {
        auto self = w.lock();
        ipc::ReplyHandler reply = inv.handler();
        auto alert = ConsentAlert::fromValue(inv.at(0));
        if (!self || !alert) {
            log::error("consent agent: unreadable alert %@; answered cancel", inv.at(0));
            reply(ipc::Arguments().add(Value("cancel")));
            return;
        }
        if (self->unanswered_.fetch_add(1) >= self->options_.maxUnansweredAlerts) {
            self->unanswered_--;
            log::error("consent agent: %lu alerts are still open; answered cancel",
                       self->options_.maxUnansweredAlerts);
            reply(ipc::Arguments().add(Value("cancel")));
            return;
        }
        // The presenter may answer from any thread; the first answer counts,
        // and none after a withdrawal.
        auto once = std::make_shared<std::atomic<bool>>(false);
        const uint64_t id = alert->alertID;
        if (id) {
            std::lock_guard lock(self->mutex_);
            self->open_[id] = Open{once, alert->title};
        }
        self->options_.presenter(*alert, [w, reply, once, id](ConsentResponse response) {
            if (once->exchange(true)) return;
            if (auto agent = w.lock(); agent && id) {
                std::lock_guard lock(agent->mutex_);
                agent->open_.erase(id);
            }
            const char* name = consentResponseName(response);
            // Counted before the reply leaves: whoever got the answer finds
            // it counted.
            auto agent = w.lock();
            if (agent) {
                agent->unanswered_--;
                agent->answered_++;
            }
            reply(ipc::Arguments().add(Value(name)));
            if (agent) agent->emit(Event::Answered, name);
        });
    });
    table->on(method::kWithdrawAlert, [w](ipc::Invocation& inv) {
        auto self = w.lock();
        auto id = inv.integerAt<uint64_t>(0);
        if (!self || !id) return;
        Open open;
        {
            std::lock_guard lock(self->mutex_);
            auto it = self->open_.find(*id);
            if (it == self->open_.end()) return;  // answered already, or unknown
            open = std::move(it->second);
            self->open_.erase(it);
        }
        if (open.settled->exchange(true)) return;
        self->unanswered_--;
        if (self->options_.withdraw) self->options_.withdraw(*id);
        self->emit(Event::Withdrawn, open.title);
    });
    return table;
}

void ConsentAgent::start() {
    {
        std::lock_guard lock(mutex_);
        if (connection_ || stopped_) return;
        retryDelay_ = options_.retryMin;
    }
    auto c = ipc::Connection::toService(options_.serviceName);
    c->setRemoteObjectInterface(shellChannelInterface());
    c->setExportedInterface(consentAgentProtocolInterface());
    c->setExportedObject(makeExportedObject());
    c->setInterruptionHandler([w = weak_from_this()] {
        auto self = w.lock();
        if (!self) return;
        self->emit(Event::WaitingForService);
        self->scheduleRegistration();
    });
    {
        std::lock_guard lock(mutex_);
        connection_ = c;
    }
    c->resume();
    registerNow();
}

void ConsentAgent::stop() {
    std::shared_ptr<ipc::Connection> c;
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        c = connection_;
    }
    if (c) c->invalidate();
}

void ConsentAgent::scheduleRegistration() {
    std::shared_ptr<ipc::Connection> c;
    std::chrono::milliseconds delay;
    {
        std::lock_guard lock(mutex_);
        if (stopped_ || retryScheduled_ || !connection_) return;
        retryScheduled_ = true;
        c = connection_;
        delay = retryDelay_;
        retryDelay_ = std::min(retryDelay_ * 2, options_.retryMax);
    }
    c->queue()->asyncAfter(delay, [w = weak_from_this()] {
        auto self = w.lock();
        if (!self) return;
        {
            std::lock_guard lock(self->mutex_);
            self->retryScheduled_ = false;
            if (self->stopped_) return;
        }
        self->registerNow();
    });
}

void ConsentAgent::registerNow() {
    std::shared_ptr<ipc::Connection> c;
    {
        std::lock_guard lock(mutex_);
        if (stopped_) return;
        c = connection_;
    }
    Value languages = Value::array();
    for (const auto& l : options_.preferredLanguages) languages.push_back(l);
    std::weak_ptr<ConsentAgent> w = weak_from_this();
    // Before the registration, on every (re)connection: a service that
    // predates withdrawals drops the call and carries on.
    if (options_.withdraw)
        c->remoteObjectProxyWithErrorHandler([](const Error&) {
         }).call(method::kEnableAlertWithdrawal, ipc::Arguments());
    c->remoteObjectProxyWithErrorHandler([w](const Error& e) {
         auto self = w.lock();
         if (!self) return;
         if (e.domain == ipc::kIPCErrorDomain && e.code == ipc::kErrorConnectionInvalid) return;
         self->emit(Event::WaitingForService, e.description());
         self->scheduleRegistration();
     })
        .call(method::kRegisterConsentAgent, ipc::Arguments().add(std::move(languages)),
              [w](const ipc::Received& reply) {
                  auto self = w.lock();
                  if (!self) return;
                  const Value& answer = reply.at(0);
                  if (answer.is_null()) {
                      {
                          std::lock_guard lock(self->mutex_);
                          self->retryDelay_ = self->options_.retryMin;
                      }
                      self->emit(Event::Registered);
                      return;
                  }
                  auto error = Error::fromValue(answer);
                  self->emit(Event::RegistrationFailed,
                             error ? error->localizedDescription().value_or(error->description())
                                   : describe(answer));
              });
}

void ConsentAgent::flush(std::function<void()> done) {
    std::shared_ptr<ipc::Connection> c;
    {
        std::lock_guard lock(mutex_);
        c = connection_;
    }
    if (!c) {
        done();
        return;
    }
    // Messages on a connection arrive in order: once this call is answered
    // (with anything), every reply sent before it has arrived too.
    auto once = std::make_shared<std::atomic<bool>>(false);
    auto finish = [done = std::move(done), once]() {
        if (!once->exchange(true)) done();
    };
    c->remoteObjectProxyWithErrorHandler([finish](const Error&) {
         finish();
     }).call(method::kLayerContextIDsForCaller, {}, [finish](const ipc::Received&) { finish(); });
}

}  // namespace sv
