// The database tests' names, kept for the suites that use them by this namespace.
#pragma once

#include "support/family_fixture.h"

namespace dbtest {
using namespace famtest;
inline const std::string kAdmin = "cn=Zel Sr Admin,o=acme";
}  // namespace dbtest
