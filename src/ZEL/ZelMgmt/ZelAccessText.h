// Access-control texts that the user profiles and the database tree share.
#pragma once

namespace zel::access {

// Rights of the Netscape-style ACI dialect.
constexpr const char *kAllowAll = "allow (all)";
constexpr const char *kAllowRead = "allow(read, search, compare)";
constexpr const char *kAllowWrite = "allow(add, read, write, search, compare)";
constexpr const char *kDenyAll = "deny (all)";

// eDirectory ACLs: privileges#scope#subject#protected attribute.
constexpr int kEntrySupervisor = 16;
constexpr int kAttributeRead = 3;

}  // namespace zel::access
