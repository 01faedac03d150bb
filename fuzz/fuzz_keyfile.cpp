// Key file text: parsed or refused, never read past, and a parsed ring has
// exactly one active key with distinct ids.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/key_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    zel::platform::KeyRing ring;
    if (!ring.parse(reinterpret_cast<const char *>(data), size)) {
        if (!ring.keys().empty()) abort();
        return 0;
    }
    int active = 0;
    for (size_t i = 0; i < ring.keys().size(); ++i) {
        active += ring.keys()[i].active;
        for (size_t j = 0; j < i; ++j)
            if (std::strcmp(ring.keys()[i].id, ring.keys()[j].id) == 0) abort();
    }
    if (active != 1 || ring.active() == nullptr) abort();
    return 0;
}
