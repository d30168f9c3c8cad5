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
// before nlohmann's (recursive) parser sees the input. It also refuses what
// that parser would read wrongly: a negative integer below INT64_MIN.
class CborValidator {
  public:
    CborValidator(std::span<const uint8_t> in, const CborLimits& lim) : in_(in), lim_(lim) {}

    std::string validate() {
        while (!done_) {
            if (auto err = step(); !err.empty()) return err;
        }
        if (pos_ != in_.size()) return "trailing bytes after CBOR item";
        return {};
    }

  private:
    // An open array, map or indefinite-length string.
    struct Frame {
        uint64_t remaining;  // items left; unused for indefinite length
        bool indefinite;
        bool stringChunks;  // indefinite text/byte string: only chunks allowed
        uint8_t chunkMajor;
    };
    // The initial byte of a data item and its argument.
    struct Head {
        uint8_t major;
        uint8_t info;
        uint64_t argument = 0;
    };

    // Reads one data item's head (or a break) and what it opens or skips.
    std::string step() {
        if (pos_ >= in_.size()) return "truncated CBOR input";
        uint8_t initial = in_[pos_++];
        if (initial == 0xff) return closeIndefinite();
        Head h{uint8_t(initial >> 5), uint8_t(initial & 0x1f)};
        if (auto err = countItem(h); !err.empty()) return err;
        if (auto err = readArgument(h); !err.empty()) return err;
        switch (h.major) {
            case 0:  // unsigned integer: every 64-bit value is representable
            case 7:  // simple value or float
                finishItem();
                return {};
            case 1:
                return negativeInteger(h);
            case 2:
            case 3:
                return string(h);
            case 4:
            case 5:
                return container(h);
            default:  // tag: the tagged item follows
                return {};
        }
    }

    std::string closeIndefinite() {
        if (stack_.empty() || !stack_.back().indefinite) return "unexpected CBOR break";
        stack_.pop_back();
        finishItem();
        return {};
    }

    // Counts the item against the limits and checks it may stand here.
    std::string countItem(const Head& h) {
        if (++items_ > lim_.maxItems) return "CBOR input has too many items";
        if (h.major == 6) {
            // nlohmann recurses once per tag, so tags count as nesting.
            if (++pendingTags_ + stack_.size() >= lim_.maxDepth) return "CBOR nesting too deep";
        } else {
            pendingTags_ = 0;
        }
        if (!stack_.empty() && stack_.back().stringChunks &&
            (h.major != stack_.back().chunkMajor || h.info == 31))
            return "invalid chunk in indefinite-length CBOR string";
        return {};
    }

    std::string readArgument(Head& h) {
        if (h.info < 24) {
            h.argument = h.info;
        } else if (h.info <= 27) {
            size_t n = size_t(1) << (h.info - 24);
            if (in_.size() - pos_ < n) return "truncated CBOR input";
            for (size_t i = 0; i < n; ++i) h.argument = (h.argument << 8) | in_[pos_++];
        } else if (h.info == 31) {
            if (h.major == 0 || h.major == 1 || h.major == 6)
                return "invalid CBOR indefinite length";
            if (h.major == 7) return "unexpected CBOR break";
        } else {
            return "reserved CBOR additional information";
        }
        return {};
    }

    // -1 - argument must fit a signed 64-bit integer; below it the parser
    // would wrap around to a large positive value.
    std::string negativeInteger(const Head& h) {
        if (h.argument > uint64_t(INT64_MAX))
            return "malformed CBOR: negative integer below the 64-bit range";
        finishItem();
        return {};
    }

    std::string string(const Head& h) {
        if (h.info == 31) return open({0, true, true, h.major});
        if (h.argument > in_.size() - pos_) return "CBOR string longer than input";
        auto length = static_cast<size_t>(h.argument);
        if (h.major == 3 && !validUtf8(in_.data() + pos_, length))
            return "malformed CBOR: text string is not UTF-8";
        pos_ += length;
        finishItem();
        return {};
    }

    std::string container(const Head& h) {
        if (h.info == 31) return open({0, true, false, 0});
        // Every item takes at least one byte, which bounds the count.
        uint64_t count = h.argument;
        if (h.major == 5) {
            if (count > (in_.size() - pos_) / 2) return "CBOR map longer than input";
            count *= 2;
        } else if (count > in_.size() - pos_) {
            return "CBOR array longer than input";
        }
        if (count == 0) {
            finishItem();
            return {};
        }
        return open({count, false, false, 0});
    }

    std::string open(Frame frame) {
        if (stack_.size() >= lim_.maxDepth) return "CBOR nesting too deep";
        stack_.push_back(frame);
        return {};
    }

    // One complete item ended: closes every definite-length container that
    // it completes; the input is done when the top-level item is complete.
    void finishItem() {
        while (!stack_.empty()) {
            Frame& top = stack_.back();
            if (top.indefinite || --top.remaining > 0) return;
            stack_.pop_back();
        }
        done_ = true;
    }

    std::span<const uint8_t> in_;
    const CborLimits& lim_;
    std::vector<Frame> stack_;
    size_t pos_ = 0;
    size_t items_ = 0;
    size_t pendingTags_ = 0;
    bool done_ = false;
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
