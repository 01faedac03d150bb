// Sets (or unsets) an environment variable for the life of the object, and
// reads a number a run is replayed or sized by.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

namespace zeltest {

class ScopedEnv {
public:
    ScopedEnv(const char *name, const char *value) : name_(name) {
        if (const char *old = std::getenv(name)) old_ = old;
        if (value) setenv(name, value, 1);
        else unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_) setenv(name_.c_str(), old_->c_str(), 1);
        else unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// The number the variable holds, or `otherwise` when it is unset or empty.
inline uint32_t env_number(const char *name, uint32_t otherwise) {
    const char *v = std::getenv(name);
    return v && *v ? static_cast<uint32_t>(std::strtoul(v, nullptr, 10)) : otherwise;
}

}  // namespace zeltest
