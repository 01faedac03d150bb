// Stored password text from the directory: decoding never reads past it and
// gives text or null.  The key file in ZEL_KEYFILE (set by `make fuzz`) lets
// encrypted values reach the decryption path.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/password_mask.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::free(zel::platform::util_decode(text.c_str()));
    (void)zel::platform::util_is_current(text.c_str());
    return 0;
}
