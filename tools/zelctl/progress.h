// A progress line on standard error for long runs: count, rate and time
// left.  Silent when standard error is not a terminal or with --quiet, so
// scripts and logs see nothing of it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "zelmgmt.h"

namespace zelctl {

class Progress {
public:
    Progress(const char *what, size_t total, bool quiet);
    ~Progress() { done(); }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void step(size_t n = 1);
    // A count told from elsewhere; a negative total is not known yet.
    void update(int64_t count, int64_t total);
    // Clears the line; further steps print nothing.
    void done();

private:
    void redraw();
    void draw();

    const char *what_;
    size_t total_, count_ = 0;
    bool total_known_ = true;
    bool active_;
    std::chrono::steady_clock::time_point start_, last_;
};

// The line of a long library call: the session's progress hook feeds it
// while this lives.
class LibraryProgress {
public:
    LibraryProgress(ZelSession *s, const char *what, bool quiet);
    ~LibraryProgress();
    LibraryProgress(const LibraryProgress &) = delete;
    LibraryProgress &operator=(const LibraryProgress &) = delete;

    // Unhooks and clears the line, before the results are printed.
    void done();

private:
    ZelSession *s_;
    Progress line_;
};

}  // namespace zelctl
