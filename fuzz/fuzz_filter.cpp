// Any value quoted for a filter stays one assertion value: no filter
// metacharacter survives, every escape is a backslash and two upper-case hex
// digits, and undoing the escapes gives the value back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/filter_format.h"
#include "ZelSearch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string value(reinterpret_cast<const char *>(data), size);
    const std::string q = zel::platform::escape_filter_value(value);
    std::string back;
    for (size_t i = 0; i < q.size(); ++i) {
        if (q[i] == '(' || q[i] == ')' || q[i] == '*' || q[i] == '\0') abort();
        if (q[i] != '\\') {
            back += q[i];
            continue;
        }
        if (i + 2 >= q.size()) abort();
        const char hex[3] = {q[i + 1], q[i + 2], 0};
        if (std::strspn(hex, "0123456789ABCDEF") != 2) abort();
        back += static_cast<char>(std::strtol(hex, nullptr, 16));
        i += 2;
    }
    if (back != value) abort();

    // The bounded form: measured on the value as given (what a 600-byte
    // buffer would hold), sent escaped; a refusal leaves the output alone.
    const std::string text = value.substr(0, value.find('\0'));
    std::string filter = "untouched";
    const bool fits = std::strlen("(cn=)") + text.size() < 600;
    if (zel::format_filter(filter, "(cn=%s)", text.c_str()) != fits) abort();
    if (filter != (fits ? "(cn=" + zel::platform::escape_filter_value(text) + ")" : "untouched")) abort();
    char *p = zel::platform::ku_mbs_sprintf("(&(cn=%Q)(uid=%s))", text.c_str(), "x");
    std::free(p);
    return 0;
}
