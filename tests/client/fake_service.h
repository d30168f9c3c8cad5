// A scripted stand-in for one of the daemon's services in the test process:
// a named listener that exports an interface, records every call it gets
// (in arrival order, from every connection), answers through a script, and
// can call back into its newest connection. It can die (everything closed,
// as when the daemon ends) and a new one can take its name.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/error.h"
#include "platform/ipc/ipc.h"

namespace sv::test {

// A recording error as the daemon sends it, `message` its description.
inline Error recordingError(int64_t code, std::optional<std::string> message = std::nullopt) {
    Value info = Value::object();
    if (message) info[kLocalizedDescriptionKey] = *message;
    return Error{"org.sorvel.SVRecordingErrorDomain", code, info};
}

// Same methods and arguments, replies of any shape: lets a script answer
// with malformed values.
inline std::shared_ptr<const ipc::Interface> withAnyReplies(
    const std::shared_ptr<const ipc::Interface>& base) {
    std::vector<ipc::MethodSpec> methods = base->methods();
    for (auto& m : methods)
        for (auto& a : m.replyArguments) a = ipc::ArgSpec{ipc::ArgKind::Any, true};
    return std::make_shared<const ipc::Interface>(base->name(), std::move(methods));
}

class FakeService : public ipc::ListenerDelegate, public std::enable_shared_from_this<FakeService> {
  public:
    struct Call {
        std::string method;
        std::vector<Value> args;
        ipc::ReplyHandler reply;  // empty for calls without a handler
        pid_t pid = 0;
    };
    // Runs on the calling connection's queue for every call, before the call
    // is recorded; may reply now, later, or never.
    using Script = std::function<void(const Call& call)>;

    static std::shared_ptr<FakeService> start(const std::string& name,
                                              std::shared_ptr<const ipc::Interface> exported,
                                              std::shared_ptr<const ipc::Interface> remote,
                                              Script script = nullptr) {
        auto s = std::shared_ptr<FakeService>(new FakeService);
        s->exported_ = std::move(exported);
        s->remote_ = std::move(remote);
        s->script_ = std::move(script);
        auto listener = ipc::Listener::named(name);
        EXPECT_TRUE(listener) << listener.error().description();
        if (!listener) return nullptr;
        s->listener_ = std::move(*listener);
        s->listener_->setDelegate(s);
        s->listener_->resume();
        return s;
    }
    ~FakeService() override { die(); }

    bool listenerShouldAcceptNewConnection(ipc::Listener&,
                                           const std::shared_ptr<ipc::Connection>& c) override {
        c->setExportedInterface(exported_);
        c->setRemoteObjectInterface(remote_);
        c->setExportedObject(std::make_shared<Recorder>(weak_from_this(), c->processIdentifier()));
        {
            std::lock_guard lock(mutex_);
            connections_.push_back(c);
        }
        c->resume();
        return true;
    }

    // Closes the listener and every connection, like a daemon that ends.
    void die() {
        if (listener_) listener_->invalidate();
        std::vector<std::shared_ptr<ipc::Connection>> cs;
        {
            std::lock_guard lock(mutex_);
            cs.swap(connections_);
        }
        for (auto& c : cs) c->invalidate();
    }

    std::vector<Call> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::vector<std::string> methods() {
        std::lock_guard lock(mutex_);
        std::vector<std::string> m;
        for (const auto& c : calls_) m.push_back(c.method);
        return m;
    }
    // Waits until `pred(calls)` holds (generous timeout); false otherwise.
    bool waitFor(const std::function<bool(const std::vector<Call>&)>& pred,
                 std::chrono::seconds timeout = std::chrono::seconds(20)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return pred(calls_); });
    }
    // Waits for the first call of `method` after the first `skip` ones.
    std::optional<Call> waitForCall(const std::string& method, size_t skip = 0) {
        std::optional<Call> found;
        waitFor([&](const std::vector<Call>& calls) {
            size_t seen = 0;
            for (const auto& c : calls)
                if (c.method == method && seen++ == skip) {
                    found = c;
                    return true;
                }
            return false;
        });
        return found;
    }

    // Calls `method` on the newest connection; `reply` (optional) receives
    // the answer.
    void callBack(const std::string& method, ipc::Arguments args, ipc::ReplyClosure reply = nullptr,
                  ipc::ErrorHandler failed = nullptr) {
        std::shared_ptr<ipc::Connection> c;
        {
            std::lock_guard lock(mutex_);
            if (!connections_.empty()) c = connections_.back();
        }
        ASSERT_TRUE(c);
        if (!failed) failed = [](const Error&) {};
        c->remoteObjectProxyWithErrorHandler(std::move(failed))
            .call(method, args, std::move(reply));
    }

  private:
    FakeService() = default;

    class Recorder : public ipc::ExportedObject {
      public:
        Recorder(std::weak_ptr<FakeService> service, pid_t pid)
            : service_(std::move(service)), pid_(pid) {}
        void invoke(ipc::Invocation& inv) override {
            auto s = service_.lock();
            if (!s) return;
            Call call{inv.method(), inv.values(), inv.handler(), pid_};
            // The script answers first, so that whatever a test does once
            // it sees the call goes out after the answer.
            if (s->script_) s->script_(call);
            {
                std::lock_guard lock(s->mutex_);
                s->calls_.push_back(call);
            }
            s->changed_.notify_all();
        }

      private:
        std::weak_ptr<FakeService> service_;
        pid_t pid_;
    };

    std::shared_ptr<const ipc::Interface> exported_, remote_;
    Script script_;
    std::shared_ptr<ipc::Listener> listener_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Call> calls_;
    std::vector<std::shared_ptr<ipc::Connection>> connections_;
};

}  // namespace sv::test
