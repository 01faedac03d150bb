// A buffer for bytes that may reveal a password or a key: sized once, so
// nothing is ever copied elsewhere, and wiped when it goes.
#pragma once

#include <sodium.h>

#include <cstddef>
#include <vector>

namespace zel::platform {

class WipedBytes {
public:
    explicit WipedBytes(size_t length) : bytes_(length) {}
    ~WipedBytes() { sodium_memzero(bytes_.data(), bytes_.size()); }
    WipedBytes(const WipedBytes &) = delete;
    WipedBytes &operator=(const WipedBytes &) = delete;
    unsigned char *data() { return bytes_.data(); }
    char *text() { return reinterpret_cast<char *>(bytes_.data()); }
    size_t size() const { return bytes_.size(); }

private:
    std::vector<unsigned char> bytes_;
};

}  // namespace zel::platform
