// Untrusted bytes into the CBOR decoder: must never crash, hang or blow the
// stack; whatever decodes must re-encode and decode to the same value.
#include <cstdint>
#include <cstdlib>

#include "fuzz/fuzz_scratch.h"
#include "platform/value.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto r = sv::decodeCbor({data, size});
    if (r) {
        sv::Bytes again = sv::encodeCbor(*r.value);
        auto r2 = sv::decodeCbor(again);
        if (!r2 || !sv::fuzz::sameValue(*r2.value, *r.value)) std::abort();
        (void)sv::describe(*r.value);
    }
    return 0;
}
