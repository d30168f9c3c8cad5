// The IPC message format: what one datagram on an IPC socket carries, how
// its transferable objects travel as file descriptors, and the checks that a
// message from an untrusted peer passes before anything acts on it.
// docs/ipc-wire-format.md describes the same format for other languages.
//
// Everything here is pure data handling with no threads of its own; the
// functions may be called from any thread.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/error.h"
#include "platform/shared_surface.h"
#include "platform/unique_fd.h"
#include "platform/value.h"

namespace sv::ipc {

inline constexpr int64_t kWireVersion = 1;
// Largest datagram accepted or sent (envelope and arguments, without fds).
inline constexpr size_t kMaxMessageBytes = 256 * 1024;
// Most descriptors (transferable objects) one message may carry.
inline constexpr size_t kMaxObjectsPerMessage = 16;
// Most arguments of one call or reply.
inline constexpr size_t kMaxArguments = 32;
// Key that marks a map inside the arguments as a reference to an object.
inline constexpr const char* kObjectKey = "$object";

// The capability to connect to an unnamed listener (Listener::anonymous).
// Whoever holds one, in any process, may connect; it cannot be forged from
// bytes. Copies share one descriptor.
class Endpoint {
  public:
    Endpoint() = default;
    // Takes ownership of `fd` (a SOCK_SEQPACKET socket of a listener).
    static Endpoint adopt(int fd);
    bool valid() const { return fd_ && fd_->valid(); }
    // Still owned by the endpoint.
    int fd() const { return fd_ ? fd_->get() : -1; }

  private:
    std::shared_ptr<UniqueFd> fd_;
};

// Read-only access to one file for another process: an O_RDONLY descriptor.
class FileToken {
  public:
    FileToken() = default;
    // Opens `path` read-only; an error (kIPCErrorDomain, kErrorCannotOpenFile)
    // when it cannot be opened.
    static Result<FileToken> openForReading(const std::string& path);
    // Takes ownership of `fd`, which must be open read-only.
    static FileToken adopt(int fd);
    bool valid() const { return fd_ && fd_->valid(); }
    int fd() const { return fd_ ? fd_->get() : -1; }

  private:
    std::shared_ptr<UniqueFd> fd_;
};

// A transferable object. Surfaces arrive as read-only mappings of the
// sender's memfd: the pixels are never copied. A surface that cannot be
// mapped rejects the message when it is an argument of its own; inside an
// array or map the message arrives without it (Received::surface is null).
using Object = std::variant<std::shared_ptr<SharedSurface>, Endpoint, FileToken>;

enum class ArgKind : uint8_t {
    Any,  // any value (objects inside are allowed)
    Bool,
    Int,     // integer, signed or unsigned (-2^63 .. 2^64-1)
    Int32,   // integer in the signed 32-bit range
    UInt32,  // integer in the unsigned 32-bit range
    Int64,   // integer in the signed 64-bit range
    Number,  // integer or floating point
    String,
    Bytes,
    Array,
    Dictionary,  // map with text keys
    Surface,     // object reference of kind "surface"
    Endpoint,    // object reference of kind "endpoint"
    FileToken,   // object reference of kind "file"
    Handler,     // completion handler: a reply identifier on the wire
};
const char* argKindName(ArgKind kind);

struct ArgSpec {
    ArgKind kind = ArgKind::Any;
    bool nullable = false;  // null is accepted as well
};
inline ArgSpec orNull(ArgKind kind) {
    return ArgSpec{kind, true};
}

// One method of an interface. `arguments` includes the completion handler
// (kind Handler, at most one); `replyArguments` lists the handler's parameters.
struct MethodSpec {
    std::string name;  // full multi-part name, colons included
    std::vector<ArgSpec> arguments;
    std::vector<ArgSpec> replyArguments;

    // Position of the Handler argument, or -1.
    int handlerIndex() const;
};

// A named list of methods, immutable once built. Shared between threads.
class Interface {
  public:
    Interface(std::string name, std::vector<MethodSpec> methods);
    const std::string& name() const { return name_; }
    const MethodSpec* method(std::string_view wireName) const;
    const std::vector<MethodSpec>& methods() const { return methods_; }

  private:
    std::string name_;
    std::vector<MethodSpec> methods_;
};

// Outgoing arguments of a call or reply, in order (without the handler of a
// call). Objects are kept alive until the message has been encoded, which
// duplicates their descriptors.
class Arguments {
  public:
    Arguments& add(Value value);
    // Every integer type keeps its full value (and a literal 0 is a number,
    // not a null surface).
    template <std::integral T>
    Arguments& add(T value) {
        return add(Value(value));
    }
    Arguments& add(std::shared_ptr<SharedSurface> surface);
    Arguments& add(Endpoint endpoint);
    Arguments& add(FileToken token);
    Arguments& addNull() { return add(Value(nullptr)); }
    // A reference to `object` for use inside a dictionary or array argument.
    Value reference(Object object);

    const std::vector<Value>& values() const { return values_; }
    const std::vector<Object>& objects() const { return objects_; }
    size_t size() const { return values_.size(); }

  private:
    std::vector<Value> values_;
    std::vector<Object> objects_;
};

// Arguments as received: values (object references still in place) and the
// objects they refer to. Accessors return null / nullopt for anything that
// is not what was asked for; they never throw.
class Received {
  public:
    Received() = default;
    Received(std::vector<Value> args, std::vector<std::optional<Object>> objects)
        : args_(std::move(args)), objects_(std::move(objects)) {}

    size_t size() const { return args_.size(); }
    // Null value for an index out of range.
    const Value& at(size_t i) const;
    const std::vector<Value>& values() const { return args_; }

    // The integer at `i` when it is one and fits T; nullopt otherwise.
    template <std::integral T>
    std::optional<T> integerAt(size_t i) const {
        return integerOf<T>(at(i));
    }

    std::shared_ptr<SharedSurface> surface(const Value& reference) const;
    std::optional<Endpoint> endpoint(const Value& reference) const;
    std::optional<FileToken> fileToken(const Value& reference) const;
    std::shared_ptr<SharedSurface> surfaceAt(size_t i) const { return surface(at(i)); }
    std::optional<Endpoint> endpointAt(size_t i) const { return endpoint(at(i)); }
    std::optional<FileToken> fileTokenAt(size_t i) const { return fileToken(at(i)); }

  private:
    const Object* object(const Value& reference) const;
    std::vector<Value> args_;
    std::vector<std::optional<Object>> objects_;
};

enum class MessageType : int64_t { Call = 1, Reply = 2, Connect = 3 };

struct EncodedMessage {
    Bytes bytes;
    std::vector<UniqueFd> fds;
};

// Encodes a call of `method` with `args` (the handler left out); the reply
// identifier goes where the method's handler is (0 = no reply wanted). The
// arguments are checked against the method first. An error (kIPCErrorDomain,
// kErrorMessageRejected) when they do not match or a limit is broken.
Result<EncodedMessage> encodeCall(const MethodSpec& method, const Arguments& args,
                                  uint64_t replyId);
Result<EncodedMessage> encodeReply(uint64_t replyId, const std::vector<ArgSpec>& signature,
                                   const Arguments& args);
// The message that hands a connected socket to an unnamed listener.
EncodedMessage encodeConnect(UniqueFd socket);

struct DecodedMessage {
    MessageType type = MessageType::Call;
    std::string method;    // calls
    uint64_t replyId = 0;  // calls: 0 = no reply wanted; replies: the call answered
    Received arguments;
    UniqueFd socket;  // connect messages
};

struct DecodeResult {
    std::optional<DecodedMessage> message;
    std::string error;
};

// Looks up the reply arguments that the call with this identifier expects;
// nullptr when no such call is outstanding.
using ReplySpecLookup = std::function<const std::vector<ArgSpec>*(uint64_t replyId)>;

// Decodes one datagram from an untrusted peer together with the descriptors
// that came with it (taken over; every one is closed unless it ends up in
// the result). Calls are checked against `exported` (nullptr: rejected),
// replies against `replySpec`. Never throws.
DecodeResult decodeMessage(std::span<const uint8_t> bytes, std::vector<UniqueFd> fds,
                           const Interface* exported, const ReplySpecLookup& replySpec);

// Checks values against a list of kinds (objects must be in `objectCount`).
std::string checkArguments(const std::vector<ArgSpec>& signature, const std::vector<Value>& args);

}  // namespace sv::ipc
