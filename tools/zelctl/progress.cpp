#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace zelctl {

namespace {
// Redrawn at most this often: the line must not cost the run its time.
constexpr auto kRedraw = std::chrono::milliseconds(200);
}  // namespace

Progress::Progress(const char *what, size_t total, bool quiet)
    : what_(what), total_(total), active_(!quiet && isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()), last_(start_) {}

void Progress::step(size_t n) {
    count_ += n;
    redraw();
}

void Progress::update(int64_t count, int64_t total) {
    // A library call that starts again (one per user named) starts the clock again.
    if (count == 0) start_ = std::chrono::steady_clock::now();
    count_ = static_cast<size_t>(count);
    total_known_ = total >= 0;
    total_ = total_known_ ? static_cast<size_t>(total) : 0;
    redraw();
}

void Progress::redraw() {
    if (!active_) return;
    auto now = std::chrono::steady_clock::now();
    if (now - last_ < kRedraw && (!total_known_ || count_ < total_)) return;
    last_ = now;
    draw();
}

void Progress::draw() {
    double seconds = std::chrono::duration<double>(last_ - start_).count();
    double rate = seconds > 0 ? static_cast<double>(count_) / seconds : 0;
    if (total_known_)
        std::fprintf(stderr, "\r%s %zu/%zu  %.0f/s", what_, count_, total_, rate);
    else
        std::fprintf(stderr, "\r%s %zu  %.0f/s", what_, count_, rate);
    if (total_known_ && rate > 0 && total_ > count_) {
        long left = static_cast<long>(static_cast<double>(total_ - count_) / rate);
        std::fprintf(stderr, "  %ld:%02ld left", left / 60, left % 60);
    }
    std::fprintf(stderr, "\033[K");
    std::fflush(stderr);
}

void Progress::done() {
    if (!active_) return;
    active_ = false;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
}

}  // namespace zelctl

namespace zelctl {

namespace {
void on_progress(void *line, int64_t done, int64_t total) { static_cast<Progress *>(line)->update(done, total); }
}  // namespace

LibraryProgress::LibraryProgress(ZelSession *s, const char *what, bool quiet) : s_(s), line_(what, 0, quiet) {
    (void)Zel_setProgressCallback(s_, on_progress, &line_);
}

LibraryProgress::~LibraryProgress() { done(); }

void LibraryProgress::done() {
    (void)Zel_setProgressCallback(s_, nullptr, nullptr);
    line_.done();
}

}  // namespace zelctl
