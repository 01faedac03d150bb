// The directory client adapter, as the library's files reach it.
#pragma once

#include "ZelPlatform.h"
#include "platform/ldap_client.h"
