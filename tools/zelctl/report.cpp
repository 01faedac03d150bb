// What zelctl prints: errors on standard error, results for people or, with
// --json, for scripts.
#include <cstdio>

#include "zelctl.h"

namespace zelctl {

int fail(const std::string &what, ZelRC rc) {
    const char *detail = Zel_last_error_detail();
    if (detail != nullptr && *detail != '\0')
        std::fprintf(stderr, "zelctl: %s: %s (status %u): %s\n", what.c_str(), Zel_strerror(rc), rc, detail);
    else
        std::fprintf(stderr, "zelctl: %s: %s (status %u)\n", what.c_str(), Zel_strerror(rc), rc);
    return 1;
}

const char *directory_kind_name(int32_t kind) {
    switch (kind) {
    case ZEL_DIR_ORV: return "orv";
    case ZEL_DIR_NETSCAPE: return "netscape";
    case ZEL_DIR_NDS: return "nds";
    case ZEL_DIR_EDIRECTORY: return "edirectory";
    case ZEL_DIR_GENERIC: return "generic";
    case ZEL_DIR_ACTIVE_DIRECTORY: return "active-directory";
    default: return "unknown";
    }
}

int usage(const std::string &message) {
    std::fprintf(stderr, "zelctl: %s\n", message.c_str());
    return 2;
}

std::string json_string(const char *text) {
    if (!text) return "null";
    std::string out = "\"";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; ++p) {
        switch (*p) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (*p < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", *p);
                out += buf;
            } else {
                out += static_cast<char>(*p);
            }
        }
    }
    return out + "\"";
}

int report_done(const Options &opts, const char *what, const char *key, const std::string &name, const char *verb) {
    if (opts.json)
        std::printf("{\"%s\":%s,\"%s\":true}\n", key, json_string(name.c_str()).c_str(), verb);
    else
        std::printf("%s %s %s\n", what, name.c_str(), verb);
    return 0;
}

}  // namespace zelctl
