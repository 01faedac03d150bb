// A progress line on standard error for long runs: count, rate and time
// left.  Silent when standard error is not a terminal or with --quiet, so
// scripts and logs see nothing of it.
#pragma once

#include <chrono>
#include <cstddef>

namespace zelctl {

class Progress {
public:
    Progress(const char *what, size_t total, bool quiet);
    ~Progress() { done(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void step(size_t n = 1);
    // Clears the line; further steps print nothing.
    void done();

private:
    void draw();

    const char *what_;
    size_t total_, count_ = 0;
    bool active_;
    std::chrono::steady_clock::time_point start_, last_;
};

}  // namespace zelctl
