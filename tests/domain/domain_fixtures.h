// The resource group tests' names, kept for the suites that use them by this namespace.
#pragma once

#include "support/family_fixture.h"

namespace domaintest {
using namespace famtest;
using Values = Strings;
}  // namespace domaintest
