// The service tests' names, kept for the suites that use them by this namespace.
#pragma once

#include "support/family_fixture.h"

namespace tstest {
using namespace famtest;
inline std::string resources_ldif(const zeltest::Directory &) { return container_ldif(kResources, "Resources"); }
}  // namespace tstest
