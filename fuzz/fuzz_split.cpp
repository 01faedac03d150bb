// Stored text split into words: identifiers at runs of '=', record
// identifiers and first-generation domain members at runs of ':', member
// DNs at their first value.  No word holds its separator or is empty, and
// the words come from the text in order.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ZelIdentifierText.h"
#include "ZelTargetRecord.h"

namespace {

void check_word(const char *word, char separator, const std::string &text, size_t &from) {
    if (word == nullptr) return;
    if (*word == '\0' || std::strchr(word, separator)) abort();
    size_t at = text.find(word, from);
    if (at == std::string::npos) abort();
    from = at + std::strlen(word);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    text = text.substr(0, text.find('\0'));
    ZelReqIdentifier pair{};
    if (zel::split_identifier(text.c_str(), &pair) == 0) {
        size_t from = 0;
        check_word(pair.name, '=', text, from);
        check_word(pair.value, '=', text, from);
        if (pair.value && !pair.name) abort();
    }
    std::free(pair.name);
    std::free(pair.value);

    ZelDomainLocation loc{};
    if (zel::split_target_location(text.c_str(), &loc) == 0) {
        if (loc.value && (!loc.type || *loc.value == ':' || text.find(loc.value) == std::string::npos)) abort();
    }
    std::free(loc.type);
    std::free(loc.value);
    char *member = nullptr;
    (void)zel::member_service_name(text.c_str(), member);
    std::free(member);

    std::string name, realm, group;
    if (zel::split_principal(text.c_str(), name, realm)) {
        if (name.find('@') != std::string::npos || realm.find('@') != std::string::npos) abort();
        if (text.find(name) == std::string::npos || text.find(realm) == std::string::npos) abort();
    }
    if (zel::credential_group(text.c_str(), group) == 0 && group.find(':') != std::string::npos) abort();

    size_t from = 0;
    for (int i = 0; i < 3; ++i) {
        const std::string word = zel::token(text.c_str(), ':', i);
        if (word.empty()) break;
        check_word(word.c_str(), ':', text, from);
    }
    return 0;
}
