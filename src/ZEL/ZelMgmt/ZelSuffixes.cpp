// The session's suffix list and the lists built like it: nodes and their
// texts from the C allocator, in the order they were appended.
#include <cstdlib>
#include <cstring>

#include "ZelSession.h"

namespace zel {

ZelRC append_suffix(ZelSuffixNode **head, const char *text, size_t length) {
    char *copy = static_cast<char *>(std::calloc(1, length + 1));
    auto *node = static_cast<ZelSuffixNode *>(std::calloc(1, sizeof(ZelSuffixNode)));
    if (!copy || !node) {
        std::free(copy);
        std::free(node);
        return ZEL_RC_NO_MEMORY;
    }
    std::memcpy(copy, text, length);
    node->suffix = copy;
    while (*head) head = &(*head)->next;
    *head = node;
    return 0;
}

void free_suffixes(ZelSuffixNode *head) {
    while (head) {
        ZelSuffixNode *next = head->next;
        std::free(head->suffix);
        std::free(head);
        head = next;
    }
}

}  // namespace zel
