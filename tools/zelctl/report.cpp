// What zelctl prints: errors on standard error, results for people or, with
// --json, for scripts.
#include <cstdio>

#include "json_out.h"
#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {

int fail(const std::string &what, ZelRC rc) { return fail(what, rc, Zel_last_error_detail()); }

int fail(const std::string &what, ZelRC rc, const char *detail) {
    if (detail != nullptr && *detail != '\0')
        say_to(stderr, "zelctl: %s: %s (status %u): %s\n", what.c_str(), Zel_strerror(rc), rc, detail);
    else
        say_to(stderr, "zelctl: %s: %s (status %u)\n", what.c_str(), Zel_strerror(rc), rc);
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
    say_to(stderr, "zelctl: %s\n", message.c_str());
    return 2;
}

Json json_text(const char *text) { return text ? Json(text) : Json(nullptr); }

std::string json_dump(const Json &doc) {
    std::string text = doc.dump(-1, ' ', false, Json::error_handler_t::replace);
    // The serializer writes backspace and form feed as \b and \f; zelctl has
    // always written them as \u0008 and \u000c.  Outside strings there is no
    // backslash, so every one found starts an escape.
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char next = text[++i];
        if (next == 'b') out += "\\u0008";
        else if (next == 'f') out += "\\u000c";
        else (out += '\\') += next;
    }
    forget_secret(text);  // a revealed password passes through here
    return out;
}

int print_json(const Json &doc) {
    std::printf("%s\n", json_dump(doc).c_str());
    return 0;
}

int report_done(const Options &opts, const char *what, const char *key, const std::string &name, const char *verb) {
    if (opts.json) return print_json(Json{{key, name}, {verb, true}});
    say("%s %s %s\n", what, name.c_str(), verb);
    return 0;
}

}  // namespace zelctl
