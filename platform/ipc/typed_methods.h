// Exported methods whose arguments arrive decoded. Each argument of a method
// has a decoder that turns the received value into a typed one, or says why
// the call makes no sense; a call whose arguments do not all decode goes to
// the rejection handler instead of the method, and is never answered.
//
// Threads: the methods and the rejection handler run on the connection's
// queue, like every method of a MethodTable.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "platform/error.h"
#include "platform/ipc/ipc.h"

namespace sv::ipc {

// Turns the value of one argument into a T, or an error whose message says
// what the value should have been.
template <typename T>
using ArgumentDecoder = Result<T> (*)(const Value&);

class TypedMethods {
  public:
    using Rejected = std::function<void(const Invocation& call, const std::string& why)>;

    // Adds the methods to `table`; `rejected` hears of every call dropped.
    TypedMethods(std::shared_ptr<MethodTable> table, Rejected rejected)
        : table_(std::move(table)), rejected_(std::move(rejected)) {}

    // `body(reply, values...)` runs with the call's reply handler and its
    // arguments decoded, in order, by `decoders`.
    template <typename... Ts, typename Body>
    TypedMethods& on(std::string name, Body body, ArgumentDecoder<Ts>... decoders) {
        table_->on(std::move(name),
                   [rejected = rejected_, body = std::move(body), decoders...](Invocation& call) {
                       invoke(call, rejected, body, std::index_sequence_for<Ts...>{}, decoders...);
                   });
        return *this;
    }

  private:
    template <typename Body, size_t... I, typename... Ts>
    static void invoke(Invocation& call, const Rejected& rejected, const Body& body,
                       std::index_sequence<I...>, ArgumentDecoder<Ts>... decoders) {
        std::tuple<Result<Ts>...> decoded{decoders(call.at(I))...};
        std::optional<std::string> why;
        auto check = [&why](const auto& result) {
            if (!why && !result) why = result.error().message();
        };
        (check(std::get<I>(decoded)), ...);
        (void)check;  // a method without arguments
        if (why) {
            if (rejected) rejected(call, *why);
            return;
        }
        body(call.handler(), std::move(*std::get<I>(decoded))...);
    }

    std::shared_ptr<MethodTable> table_;
    Rejected rejected_;
};

}  // namespace sv::ipc
