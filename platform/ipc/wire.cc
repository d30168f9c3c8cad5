#include "platform/ipc/wire.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "platform/ipc/ipc.h"
#include "platform/log.h"

namespace sv::ipc {
namespace {

constexpr const char* kSurfaceKind = "surface";
constexpr const char* kEndpointKind = "endpoint";
constexpr const char* kFileKind = "file";
constexpr size_t kMaxMethodName = 256;

const char* objectKindName(const Object& o) {
    switch (o.index()) {
        case 0:
            return kSurfaceKind;
        case 1:
            return kEndpointKind;
        default:
            return kFileKind;
    }
}

int objectFd(const Object& o) {
    if (auto* s = std::get_if<std::shared_ptr<SharedSurface>>(&o)) return *s ? (*s)->fd() : -1;
    if (auto* e = std::get_if<Endpoint>(&o)) return e->fd();
    return std::get<FileToken>(o).fd();
}

bool isReference(const Value& v) {
    return v.is_object() && v.contains(kObjectKey);
}

bool isReferenceOf(const Value& v, const char* kind) {
    if (!isReference(v)) return false;
    const Value& k = v[kObjectKey];
    return k.is_string() && k.get_ref<const std::string&>() == kind;
}

bool kindMatches(const ArgSpec& signature, const Value& v) {
    if (v.is_null() && signature.nullable) return true;
    switch (signature.kind) {
        case ArgKind::Any:
            return true;
        case ArgKind::Bool:
            return v.is_boolean();
        case ArgKind::Int:
            return v.is_number_integer();
        case ArgKind::Int32:
            return integerOf<int32_t>(v).has_value();
        case ArgKind::UInt32:
            return integerOf<uint32_t>(v).has_value();
        case ArgKind::Int64:
            return integerOf<int64_t>(v).has_value();
        case ArgKind::Number:
            return v.is_number();
        case ArgKind::String:
            return v.is_string();
        case ArgKind::Bytes:
            return v.is_binary();
        case ArgKind::Array:
            return v.is_array();
        case ArgKind::Dictionary:
            return v.is_object() && !isReference(v);
        case ArgKind::Surface:
            return isReferenceOf(v, kSurfaceKind);
        case ArgKind::Endpoint:
            return isReferenceOf(v, kEndpointKind);
        case ArgKind::FileToken:
            return isReferenceOf(v, kFileKind);
        case ArgKind::Handler:
            return v.is_number_unsigned() || (v.is_number_integer() && v.get<int64_t>() >= 0);
    }
    return false;
}

bool isSeqpacketUnixSocket(int fd) {
    int type = 0, domain = 0;
    socklen_t len = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) != 0 || type != SOCK_SEQPACKET)
        return false;
    len = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0 && domain == AF_UNIX;
}

bool isReadOnlyRegularFile(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) == O_RDONLY;
}

std::optional<int64_t> smallInt(const Value& dict, const char* key) {
    auto it = dict.find(key);
    if (it == dict.end() || !it->is_number_integer()) return std::nullopt;
    if (it->is_number_unsigned() && it->get<uint64_t>() > uint64_t(INT64_MAX)) return std::nullopt;
    return it->get<int64_t>();
}

struct RefInfo {
    std::string kind;
    SurfaceDescriptor desc;
    // Inside an array or map rather than an argument of its own.
    bool nested = false;
};

// Collects and checks every object reference inside `args` (iteratively).
std::string collectReferences(const std::vector<Value>& args, size_t fdCount,
                              std::map<size_t, RefInfo>& refs) {
    std::vector<std::pair<const Value*, bool>> stack;
    for (const auto& a : args) stack.emplace_back(&a, false);
    while (!stack.empty()) {
        const auto [v, nested] = stack.back();
        stack.pop_back();
        if (v->is_array()) {
            for (const auto& e : *v) stack.emplace_back(&e, true);
            continue;
        }
        if (!v->is_object()) continue;
        if (!v->contains(kObjectKey)) {
            for (const auto& [k, e] : v->items()) stack.emplace_back(&e, true);
            continue;
        }
        const Value& kind = (*v)[kObjectKey];
        if (!kind.is_string()) return "object reference without a kind";
        auto index = smallInt(*v, "index");
        if (!index || *index < 0 || size_t(*index) >= fdCount)
            return "object reference to a descriptor that did not arrive";
        RefInfo info;
        info.kind = kind.get<std::string>();
        info.nested = nested;
        if (info.kind == kSurfaceKind) {
            auto w = smallInt(*v, "width"), h = smallInt(*v, "height");
            auto bpr = smallInt(*v, "bytesPerRow"), pf = smallInt(*v, "pixelFormat");
            if (!w || !h || !bpr || !pf || *w <= 0 || *h <= 0 || *w > 16384 || *h > 16384 ||
                *bpr <= 0 || *bpr > INT32_MAX || *pf < 0 || *pf > UINT32_MAX)
                return "surface reference with a bad description";
            info.desc = {int32_t(*w), int32_t(*h), uint32_t(*bpr), PixelFormat(uint32_t(*pf))};
        } else if (info.kind != kEndpointKind && info.kind != kFileKind) {
            return "object reference of unknown kind";
        }
        auto [it, inserted] = refs.emplace(size_t(*index), info);
        if (!inserted) {
            const RefInfo& prev = it->second;
            if (prev.kind != info.kind ||
                std::memcmp(&prev.desc, &info.desc, sizeof info.desc) != 0)
                return "one descriptor referenced as different objects";
        }
    }
    return {};
}

std::string importObjects(const std::vector<Value>& args, std::vector<UniqueFd>& fds,
                          std::vector<std::optional<Object>>& objects) {
    std::map<size_t, RefInfo> refs;
    if (auto err = collectReferences(args, fds.size(), refs); !err.empty()) return err;
    objects.assign(fds.size(), std::nullopt);
    for (auto& [index, info] : refs) {
        UniqueFd& fd = fds[index];
        if (info.kind == kSurfaceKind) {
            auto s = SharedSurface::importDescriptor(fd.release(), info.desc);
            if (!s && info.nested) {
                // A surface inside a value (a frame inside a payload): the
                // value arrives without it, and its reader sees no surface.
                static log::RateLimit limit;
                log::error(limit, "ipc: a surface inside a value cannot be mapped: %@",
                           s.error().message());
                continue;
            }
            if (!s) return "surface rejected: " + s.error().message();
            objects[index] = Object(std::move(*s));
        } else if (info.kind == kEndpointKind) {
            if (!isSeqpacketUnixSocket(fd.get())) return "endpoint is not a listener socket";
            objects[index] = Object(Endpoint::adopt(fd.release()));
        } else {
            if (!isReadOnlyRegularFile(fd.get())) return "file token is not a read-only file";
            objects[index] = Object(FileToken::adopt(fd.release()));
        }
    }
    return {};
}

Error rejected(const std::string& why) {
    return Error::make(kIPCErrorDomain, kErrorMessageRejected, why);
}

Result<EncodedMessage> encodeEnvelope(Value envelope, const Arguments& args) {
    auto fail = [](const std::string& why) { return rejected(why); };
    if (args.objects().size() > kMaxObjectsPerMessage)
        return fail("too many objects in one message");
    EncodedMessage m;
    for (const auto& o : args.objects()) {
        int fd = objectFd(o);
        int copy = fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
        if (copy < 0)
            return fail(std::string("cannot duplicate the descriptor of a ") + objectKindName(o));
        m.fds.emplace_back(copy);
    }
    envelope["n"] = m.fds.size();
    m.bytes = encodeCbor(envelope);
    if (m.bytes.size() > kMaxMessageBytes) return fail("message larger than the limit");
    return m;
}

}  // namespace

Endpoint Endpoint::adopt(int fd) {
    Endpoint e;
    e.fd_ = std::make_shared<UniqueFd>(fd);
    return e;
}

Result<FileToken> FileToken::openForReading(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return Error::make(kIPCErrorDomain, kErrorCannotOpenFile,
                           "cannot open " + path + ": " + std::strerror(errno));
    return adopt(fd);
}

FileToken FileToken::adopt(int fd) {
    FileToken t;
    t.fd_ = std::make_shared<UniqueFd>(fd);
    return t;
}

const char* argKindName(ArgKind kind) {
    switch (kind) {
        case ArgKind::Any:
            return "any";
        case ArgKind::Bool:
            return "bool";
        case ArgKind::Int:
            return "int";
        case ArgKind::Int32:
            return "int32";
        case ArgKind::UInt32:
            return "uint32";
        case ArgKind::Int64:
            return "int64";
        case ArgKind::Number:
            return "number";
        case ArgKind::String:
            return "string";
        case ArgKind::Bytes:
            return "bytes";
        case ArgKind::Array:
            return "array";
        case ArgKind::Dictionary:
            return "dictionary";
        case ArgKind::Surface:
            return "surface";
        case ArgKind::Endpoint:
            return "endpoint";
        case ArgKind::FileToken:
            return "file";
        case ArgKind::Handler:
            return "handler";
    }
    return "?";
}

int MethodSpec::handlerIndex() const {
    for (size_t i = 0; i < arguments.size(); ++i)
        if (arguments[i].kind == ArgKind::Handler) return int(i);
    return -1;
}

Interface::Interface(std::string name, std::vector<MethodSpec> methods)
    : name_(std::move(name)), methods_(std::move(methods)) {}

const MethodSpec* Interface::method(std::string_view wireName) const {
    for (const auto& m : methods_)
        if (m.name == wireName) return &m;
    return nullptr;
}

Arguments& Arguments::add(Value value) {
    values_.push_back(std::move(value));
    return *this;
}
Arguments& Arguments::add(std::shared_ptr<SharedSurface> surface) {
    if (!surface) return addNull();
    values_.push_back(reference(Object(std::move(surface))));
    return *this;
}
Arguments& Arguments::add(Endpoint endpoint) {
    values_.push_back(reference(Object(std::move(endpoint))));
    return *this;
}
Arguments& Arguments::add(FileToken token) {
    values_.push_back(reference(Object(std::move(token))));
    return *this;
}

Value Arguments::reference(Object object) {
    Value ref = Value::object();
    ref[kObjectKey] = objectKindName(object);
    ref["index"] = objects_.size();
    if (auto* s = std::get_if<std::shared_ptr<SharedSurface>>(&object); s && *s) {
        ref["width"] = (*s)->width();
        ref["height"] = (*s)->height();
        ref["bytesPerRow"] = (*s)->bytesPerRow();
        ref["pixelFormat"] = uint32_t((*s)->pixelFormat());
    }
    objects_.push_back(std::move(object));
    return ref;
}

const Value& Received::at(size_t i) const {
    static const Value kNull;
    return i < args_.size() ? args_[i] : kNull;
}

const Object* Received::object(const Value& reference) const {
    if (!isReference(reference)) return nullptr;
    auto index = smallInt(reference, "index");
    if (!index || *index < 0 || size_t(*index) >= objects_.size() || !objects_[*index])
        return nullptr;
    return &*objects_[*index];
}

std::shared_ptr<SharedSurface> Received::surface(const Value& reference) const {
    const Object* o = object(reference);
    auto* s = o ? std::get_if<std::shared_ptr<SharedSurface>>(o) : nullptr;
    return s ? *s : nullptr;
}

std::optional<Endpoint> Received::endpoint(const Value& reference) const {
    const Object* o = object(reference);
    auto* e = o ? std::get_if<Endpoint>(o) : nullptr;
    return e ? std::optional<Endpoint>(*e) : std::nullopt;
}

std::optional<FileToken> Received::fileToken(const Value& reference) const {
    const Object* o = object(reference);
    auto* t = o ? std::get_if<FileToken>(o) : nullptr;
    return t ? std::optional<FileToken>(*t) : std::nullopt;
}

std::string checkArguments(const std::vector<ArgSpec>& signature, const std::vector<Value>& args) {
    if (args.size() != signature.size())
        return "expected " + std::to_string(signature.size()) + " arguments, got " +
               std::to_string(args.size());
    for (size_t i = 0; i < signature.size(); ++i) {
        if (!kindMatches(signature[i], args[i]))
            return "argument " + std::to_string(i) + " is not a " + argKindName(signature[i].kind);
    }
    return {};
}

Result<EncodedMessage> encodeCall(const MethodSpec& method, const Arguments& args,
                                  uint64_t replyId) {
    std::vector<Value> wire = args.values();
    int h = method.handlerIndex();
    if (h >= 0) {
        if (size_t(h) > wire.size()) return rejected("too few arguments for " + method.name);
        wire.insert(wire.begin() + h, Value(replyId));
    }
    if (auto err = checkArguments(method.arguments, wire); !err.empty())
        return rejected(method.name + ": " + err);
    Value env = Value::object();
    env["v"] = kWireVersion;
    env["t"] = int64_t(MessageType::Call);
    env["m"] = method.name;
    env["a"] = Value(std::move(wire));
    return encodeEnvelope(std::move(env), args);
}

Result<EncodedMessage> encodeReply(uint64_t replyId, const std::vector<ArgSpec>& signature,
                                   const Arguments& args) {
    if (auto err = checkArguments(signature, args.values()); !err.empty())
        return rejected("reply: " + err);
    Value env = Value::object();
    env["v"] = kWireVersion;
    env["t"] = int64_t(MessageType::Reply);
    env["r"] = replyId;
    env["a"] = Value(args.values());
    return encodeEnvelope(std::move(env), args);
}

EncodedMessage encodeConnect(UniqueFd socket) {
    Value env = Value::object();
    env["v"] = kWireVersion;
    env["t"] = int64_t(MessageType::Connect);
    env["n"] = 1;
    EncodedMessage m;
    m.bytes = encodeCbor(env);
    m.fds.push_back(std::move(socket));
    return m;
}

namespace {

// The envelope of a datagram: one CBOR map within the limits, of this
// version, announcing as many descriptors as arrived. Sets `type`.
std::string readEnvelope(std::span<const uint8_t> bytes, size_t fdCount, Value& env,
                         int64_t& type) {
    if (bytes.size() > kMaxMessageBytes) return "message larger than the limit";
    if (fdCount > kMaxObjectsPerMessage) return "too many descriptors";
    CborLimits limits;
    limits.maxBytes = kMaxMessageBytes;
    limits.maxDepth = 32;
    limits.maxItems = 65536;
    auto decoded = decodeCbor(bytes, limits);
    if (!decoded) return decoded.error;
    env = std::move(*decoded.value);
    if (!env.is_object()) return "envelope is not a map";
    auto version = smallInt(env, "v");
    if (!version || *version != kWireVersion) return "unsupported envelope version";
    auto t = smallInt(env, "t");
    if (!t) return "envelope without a type";
    type = *t;
    auto count = env.contains("n") ? smallInt(env, "n") : std::optional<int64_t>(0);
    if (!count || *count < 0 || size_t(*count) != fdCount)
        return "descriptor count does not match the descriptors received";
    return {};
}

// A call's method and arguments checked against the exported interface;
// the reply identifier moves out of the handler's position.
std::string readCall(const Value& env, const Interface* exported, std::vector<Value>& values,
                     DecodedMessage& msg) {
    auto name = env.find("m");
    if (name == env.end() || !name->is_string() || name->get_ref<const std::string&>().empty() ||
        name->get_ref<const std::string&>().size() > kMaxMethodName)
        return "call without a method name";
    msg.type = MessageType::Call;
    msg.method = name->get<std::string>();
    if (!exported) return "call of " + msg.method + " but no interface is exported";
    const MethodSpec* method = exported->method(msg.method);
    if (!method) return "unknown method " + msg.method + " of " + exported->name();
    if (auto err = checkArguments(method->arguments, values); !err.empty())
        return msg.method + ": " + err;
    if (int h = method->handlerIndex(); h >= 0) {
        msg.replyId = values[h].get<uint64_t>();
        values[h] = nullptr;
    }
    return {};
}

// A reply's identifier and arguments checked against the call it answers.
std::string readReply(const Value& env, const ReplySpecLookup& replySpec,
                      const std::vector<Value>& values, DecodedMessage& msg) {
    auto id = env.find("r");
    if (id == env.end() || !id->is_number_unsigned() || id->get<uint64_t>() == 0)
        return "reply without a reply identifier";
    msg.type = MessageType::Reply;
    msg.replyId = id->get<uint64_t>();
    const std::vector<ArgSpec>* signature = replySpec ? replySpec(msg.replyId) : nullptr;
    if (!signature) return "reply to no outstanding call";
    if (auto err = checkArguments(*signature, values); !err.empty()) return "reply: " + err;
    return {};
}

}  // namespace

DecodeResult decodeMessage(std::span<const uint8_t> bytes, std::vector<UniqueFd> fds,
                           const Interface* exported, const ReplySpecLookup& replySpec) {
    DecodeResult r;
    auto fail = [&](std::string why) {
        r.error = std::move(why);
        return std::move(r);
    };
    Value env;
    int64_t type = 0;
    if (auto err = readEnvelope(bytes, fds.size(), env, type); !err.empty()) return fail(err);

    DecodedMessage msg;
    if (type == int64_t(MessageType::Connect)) {
        if (fds.size() != 1 || !isSeqpacketUnixSocket(fds[0].get()))
            return fail("connect message without a socket");
        msg.type = MessageType::Connect;
        msg.socket = std::move(fds[0]);
        r.message = std::move(msg);
        return r;
    }
    auto args = env.find("a");
    if (args == env.end() || !args->is_array()) return fail("envelope without an argument array");
    if (args->size() > kMaxArguments) return fail("too many arguments");
    std::vector<Value> values = std::move(args->get_ref<Value::array_t&>());

    std::string err;
    if (type == int64_t(MessageType::Call))
        err = readCall(env, exported, values, msg);
    else if (type == int64_t(MessageType::Reply))
        err = readReply(env, replySpec, values, msg);
    else
        err = "unknown message type";
    if (!err.empty()) return fail(err);

    std::vector<std::optional<Object>> objects;
    if (auto e = importObjects(values, fds, objects); !e.empty()) return fail(e);
    msg.arguments = Received(std::move(values), std::move(objects));
    r.message = std::move(msg);
    return r;
}

}  // namespace sv::ipc
