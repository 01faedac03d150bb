// The directory client adapter, under the short name the library's files
// call it by.
#pragma once

#include "platform/ldap_client.h"

namespace plat = zel::platform;
