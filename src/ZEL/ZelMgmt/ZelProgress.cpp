#include "ZelEntry.h"
#include "ZelProgress.h"
#include "ZelSession.h"

namespace zel {

namespace {

void report(const ZelProgressHook &hook) { hook.fn(hook.context, hook.done, hook.total); }

}  // namespace

ProgressRun::ProgressRun(ZelSession *s) : s_(s), owns_(s->progress.fn != nullptr && !s->progress.running) {
    if (!owns_) return;
    ZelProgressHook &hook = s_->progress;
    hook.running = 1;
    hook.done = 0;
    hook.total = -1;
    report(hook);
}

ProgressRun::~ProgressRun() {
    if (owns_) s_->progress.running = 0;
}

void ProgressRun::set_total(int64_t total) {
    if (!owns_ || total < 0) return;  // not listed: still not known
    ZelProgressHook &hook = s_->progress;
    hook.total = total < hook.done ? hook.done : total;
    report(hook);
}

void ProgressRun::finish() {
    if (!owns_) return;
    ZelProgressHook &hook = s_->progress;
    if (hook.total == hook.done) return;  // the last step said so already
    hook.total = hook.done;
    report(hook);
}

void progress_step(ZelSession *s) {
    ZelProgressHook &hook = s->progress;
    if (!hook.running) return;
    ++hook.done;
    // More entries than listed: the total grows, so done never passes it.
    if (hook.total >= 0 && hook.done > hook.total) hook.total = hook.done;
    report(hook);
}

}  // namespace zel

extern "C" {

ZEL_API ZelRC Zel_setProgressCallback(ZelSession *s, ZelProgressFn fn, void *context) {
    return zel::call(s, "Zel_setProgressCallback", [&] {
        ZelRC rc = 0;
        s->progress.fn = fn;
        s->progress.context = fn ? context : nullptr;
        return rc;
    });
}

}  // extern "C"
