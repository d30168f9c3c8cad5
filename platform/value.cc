#include "platform/value.h"

#include <cstring>

namespace sv {
namespace {

// Text strings must be UTF-8 so that every decoded value can be printed and
// re-encoded without throwing.
bool validUtf8(const uint8_t* p, size_t n) {
    size_t i = 0;
    while (i < n) {
        uint8_t c = p[i];
        size_t len;
        uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
            cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

// Walks the CBOR structure iteratively so that hostile nesting cannot exhaust
// the stack, and checks every declared length against the bytes that remain
// before nlohmann's (recursive) parser sees the input.
class CborValidator {
  public:
    CborValidator(std::span<const uint8_t> in, const CborLimits& lim) : in_(in), lim_(lim) {}

    std::string validate() {
        struct Frame {
            uint64_t remaining;  // items left; UINT64_MAX for indefinite length
            bool indefinite;
            bool stringChunks;  // indefinite text/byte string: only chunks allowed
            uint8_t chunkMajor;
        };
        std::vector<Frame> stack;
        size_t items = 0;
        size_t pendingTags = 0;  // nlohmann recurses once per tag
        bool done = false;
        while (!done) {
            if (pos_ >= in_.size()) return "truncated CBOR input";
            uint8_t ib = in_[pos_++];
            uint8_t major = ib >> 5, info = ib & 0x1f;

            if (ib == 0xff) {  // break
                if (stack.empty() || !stack.back().indefinite) return "unexpected CBOR break";
                stack.pop_back();
                done = finishItem(stack);
                continue;
            }
            if (++items > lim_.maxItems) return "CBOR input has too many items";
            if (major == 6) {
                if (++pendingTags + stack.size() >= lim_.maxDepth) return "CBOR nesting too deep";
            } else {
                pendingTags = 0;
            }
            if (!stack.empty() && stack.back().stringChunks) {
                if (major != stack.back().chunkMajor || info == 31)
                    return "invalid chunk in indefinite-length CBOR string";
            }
            uint64_t arg = 0;
            if (info < 24) {
                arg = info;
            } else if (info <= 27) {
                size_t n = size_t(1) << (info - 24);
                if (in_.size() - pos_ < n) return "truncated CBOR input";
                for (size_t i = 0; i < n; ++i) arg = (arg << 8) | in_[pos_++];
            } else if (info == 31) {
                if (major == 0 || major == 1 || major == 6) return "invalid CBOR indefinite length";
                if (major == 7) return "unexpected CBOR break";
            } else {
                return "reserved CBOR additional information";
            }

            switch (major) {
                case 0:
                case 1:
                    done = finishItem(stack);
                    break;
                case 2:
                case 3:
                    if (info == 31) {
                        if (stack.size() >= lim_.maxDepth) return "CBOR nesting too deep";
                        stack.push_back({UINT64_MAX, true, true, major});
                    } else {
                        if (arg > in_.size() - pos_) return "CBOR string longer than input";
                        if (major == 3 && !validUtf8(in_.data() + pos_, static_cast<size_t>(arg)))
                            return "malformed CBOR: text string is not UTF-8";
                        pos_ += static_cast<size_t>(arg);
                        done = finishItem(stack);
                    }
                    break;
                case 4:
                case 5: {
                    if (info == 31) {
                        if (stack.size() >= lim_.maxDepth) return "CBOR nesting too deep";
                        stack.push_back({UINT64_MAX, true, false, 0});
                        break;
                    }
                    // Every item takes at least one byte, which bounds the count.
                    uint64_t count = arg;
                    if (major == 5) {
                        if (count > (in_.size() - pos_) / 2) return "CBOR map longer than input";
                        count *= 2;
                    } else if (count > in_.size() - pos_) {
                        return "CBOR array longer than input";
                    }
                    if (count == 0) {
                        done = finishItem(stack);
                    } else {
                        if (stack.size() >= lim_.maxDepth) return "CBOR nesting too deep";
                        stack.push_back({count, false, false, 0});
                    }
                    break;
                }
                case 6:  // tag: the tagged item follows
                    break;
                case 7:
                    done = finishItem(stack);
                    break;
            }
        }
        if (pos_ != in_.size()) return "trailing bytes after CBOR item";
        return {};
    }

  private:
    // One complete item ended; returns true when it was the top-level item.
    template <typename Stack>
    static bool finishItem(Stack& stack) {
        while (!stack.empty()) {
            auto& top = stack.back();
            if (top.indefinite) return false;
            if (--top.remaining > 0) return false;
            stack.pop_back();
        }
        return true;
    }

    std::span<const uint8_t> in_;
    const CborLimits& lim_;
    size_t pos_ = 0;
};

}  // namespace

Bytes encodeCbor(const Value& v) {
    return Value::to_cbor(v);
}

CborDecodeResult decodeCbor(std::span<const uint8_t> bytes, const CborLimits& limits) {
    CborDecodeResult r;
    if (bytes.size() > limits.maxBytes) {
        r.error = "CBOR input exceeds " + std::to_string(limits.maxBytes) + " bytes";
        return r;
    }
    if (bytes.empty()) {
        r.error = "empty CBOR input";
        return r;
    }
    if (auto err = CborValidator(bytes, limits).validate(); !err.empty()) {
        r.error = std::move(err);
        return r;
    }
    try {
        r.value = Value::from_cbor(bytes.begin(), bytes.end(), true, true,
                                   Value::cbor_tag_handler_t::ignore);
    } catch (const std::exception& e) {
        r.value.reset();
        r.error = std::string("malformed CBOR: ") + e.what();
    }
    return r;
}

Value bytesValue(std::span<const uint8_t> bytes) {
    return Value::binary(Bytes(bytes.begin(), bytes.end()));
}
Value bytesValue(Bytes&& bytes) {
    return Value::binary(std::move(bytes));
}

const Bytes* bytesOf(const Value& v) {
    if (!v.is_binary()) return nullptr;
    return &v.get_binary();
}

namespace {
const Value* member(const Value& dict, const char* key) {
    if (!dict.is_object()) return nullptr;
    auto it = dict.find(key);
    return it == dict.end() ? nullptr : &*it;
}
}  // namespace

std::optional<std::string> stringAt(const Value& dict, const char* key) {
    const Value* v = member(dict, key);
    if (!v || !v->is_string()) return std::nullopt;
    return v->get<std::string>();
}
std::optional<int64_t> intAt(const Value& dict, const char* key) {
    const Value* v = member(dict, key);
    if (!v) return std::nullopt;
    if (v->is_number_unsigned()) {
        uint64_t u = v->get<uint64_t>();
        if (u > uint64_t(INT64_MAX)) return std::nullopt;
        return static_cast<int64_t>(u);
    }
    if (v->is_number_integer()) return v->get<int64_t>();
    if (v->is_boolean()) return v->get<bool>() ? 1 : 0;
    return std::nullopt;
}
std::optional<double> numberAt(const Value& dict, const char* key) {
    const Value* v = member(dict, key);
    if (!v || !v->is_number()) return std::nullopt;
    return v->get<double>();
}
std::optional<bool> boolAt(const Value& dict, const char* key) {
    const Value* v = member(dict, key);
    if (!v) return std::nullopt;
    if (v->is_boolean()) return v->get<bool>();
    if (v->is_number_integer() || v->is_number_unsigned()) return v->get<int64_t>() != 0;
    return std::nullopt;
}
const Value* dictAt(const Value& dict, const char* key) {
    const Value* v = member(dict, key);
    return v && v->is_object() ? v : nullptr;
}

std::string describe(const Value& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_null()) return "(null)";
    if (v.is_binary()) return "<" + std::to_string(v.get_binary().size()) + " bytes>";
    if (!v.is_object() && !v.is_array()) return v.dump();
    // Byte strings inside containers are shown by size, not dumped.
    Value copy = v;
    std::vector<Value*> todo{&copy};
    while (!todo.empty()) {
        Value* cur = todo.back();
        todo.pop_back();
        for (auto& child : *cur) {
            if (child.is_binary())
                child = "<" + std::to_string(child.get_binary().size()) + " bytes>";
            else if (child.is_structured())
                todo.push_back(&child);
        }
    }
    return copy.dump(-1, ' ', false, Value::error_handler_t::replace);
}

}  // namespace sv
