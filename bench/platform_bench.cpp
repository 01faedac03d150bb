// Hot paths of every directory read: attribute-name comparison, filter
// quoting and password unmasking.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "platform/filter_format.h"
#include "platform/password_mask.h"
#include "platform/utf8_text.h"

namespace {

void BM_AttributeNameCompareAscii(benchmark::State &state) {
    auto h = zel::platform::zgetUTF8Handle();
    for (auto _ : state) benchmark::DoNotOptimize(zel::platform::zstricmp(h, "objectClass", "OBJECTCLASS"));
}
BENCHMARK(BM_AttributeNameCompareAscii);

void BM_CompareNonAscii(benchmark::State &state) {
    auto h = zel::platform::zgetUTF8Handle();
    for (auto _ : state) benchmark::DoNotOptimize(zel::platform::zstricmp(h, "Straße Ärger", "STRASSE ärger"));
}
BENCHMARK(BM_CompareNonAscii);

void BM_FilterWithQuotedValue(benchmark::State &state) {
    for (auto _ : state) {
        char *f = zel::platform::ku_mbs_sprintf("(&(objectClass=secUser)(secDN=%Q)(secAuthority=%Q:))",
                                                "cn=Ann (sales)*,o=acme", "Default");
        benchmark::DoNotOptimize(f);
        std::free(f);
    }
}
BENCHMARK(BM_FilterWithQuotedValue);

void BM_UnmaskPassword(benchmark::State &state) {
    char *masked = zel::platform::util_encode("correct horse battery staple");
    for (auto _ : state) {
        char *clear = zel::platform::util_decode(masked);
        benchmark::DoNotOptimize(clear);
        std::free(clear);
    }
    std::free(masked);
}
BENCHMARK(BM_UnmaskPassword);

}  // namespace
