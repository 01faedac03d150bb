// The record tests' names, kept for the suites that use them by this namespace.
#pragma once

#include "support/family_fixture.h"
#include "user/user_fixture.h"

namespace recordtest {
using namespace famtest;
}  // namespace recordtest
