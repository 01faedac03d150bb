// The thread test runs without the call interposer (its recording is not
// meant for several threads); what the shared fixtures ask of it is a no-op.
#include "support/fault_injection.h"

namespace zeltest::fault {

void reset() {}
void set_search_rewrite(SearchRewrite) {}

}  // namespace zeltest::fault
