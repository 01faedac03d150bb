// Compiler attributes the internal headers use: the export of the internal
// routines (C linkage, visible to tools and tests) and printf-style checks.
#pragma once

#if defined(__GNUC__)
#define ZEL_INTERNAL __attribute__((visibility("default")))
#define ZEL_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define ZEL_INTERNAL
#define ZEL_PRINTF(f, a)
#endif
