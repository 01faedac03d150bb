// The user tests' names, kept for the suites that use them by this namespace.
#pragma once

#include "support/family_fixture.h"

namespace usertest {
using namespace famtest;
}  // namespace usertest
