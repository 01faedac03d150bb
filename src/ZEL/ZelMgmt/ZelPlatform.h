// The platform layer (src/platform), under the short name the library's
// files call it by.
#pragma once

namespace zel::platform {}
namespace plat = zel::platform;
