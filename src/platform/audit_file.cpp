#include "platform/audit_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/audit_chain.h"

namespace zel::platform {
namespace {

// Lines longer than this are no line the library wrote.
constexpr size_t kLongestLine = 1 << 20;
constexpr size_t kChunk = 4096;

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);  // also drops the lock
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

int read_at(int fd, char *buf, size_t n, off_t at) {
    while (n > 0) {
        ssize_t got = ::pread(fd, buf, n, at);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got < 0 ? errno : EIO;
        buf += got;
        n -= static_cast<size_t>(got);
        at += got;
    }
    return 0;
}

int write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t put = ::write(fd, text.data() + done, text.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return put < 0 ? errno : EIO;
        done += static_cast<size_t>(put);
    }
    return 0;
}

// Where the line that ends just before `end` starts (the byte after the
// previous newline, or 0); EBADMSG when it is longer than any line of ours.
int line_start(int fd, off_t end, off_t &start) {
    off_t pos = end;
    while (pos > 0) {
        if (end - pos > static_cast<off_t>(kLongestLine)) return EBADMSG;
        size_t want = pos < static_cast<off_t>(kChunk) ? static_cast<size_t>(pos) : kChunk;
        pos -= static_cast<off_t>(want);
        std::string chunk(want, '\0');
        if (int err = read_at(fd, chunk.data(), want, pos)) return err;
        size_t nl = chunk.rfind('\n');
        if (nl != std::string::npos) {
            start = pos + static_cast<off_t>(nl) + 1;
            return 0;
        }
    }
    start = 0;
    return 0;
}

// The link the file's last whole line ends the chain with (an empty file
// starts it), and the length of a torn line after it (0 when none).
int last_link(int fd, off_t size, AuditLink &link, off_t &torn) {
    link = AuditLink{};
    torn = 0;
    if (size == 0) return 0;
    char last = 0;
    if (int err = read_at(fd, &last, 1, size - 1)) return err;
    off_t end = size;  // one past the last whole line's newline
    if (last != '\n') {
        if (int err = line_start(fd, size, end)) return err;
        torn = size - end;
        if (end == 0) return 0;
    }
    off_t start = 0;
    if (int err = line_start(fd, end - 1, start)) return err;
    std::string line(static_cast<size_t>(end - 1 - start), '\0');
    if (int err = read_at(fd, line.data(), line.size(), start)) return err;
    return read_audit_link(line, link) ? 0 : EBADMSG;
}

std::string utc_now() {
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    gmtime_r(&ts.tv_sec, &tm);
    char text[40];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

// Holds back the file size limit's signal on this thread while it writes, so
// that the write fails with EFBIG instead of the signal ending the process;
// one the write raised is taken away again.
class SizeLimitSignalHeld {
public:
    SizeLimitSignalHeld() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGXFSZ);
        sigset_t pending;
        held_ = pthread_sigmask(SIG_BLOCK, &set_, &old_) == 0 && !sigismember(&old_, SIGXFSZ) &&
                sigpending(&pending) == 0 && !sigismember(&pending, SIGXFSZ);
    }
    ~SizeLimitSignalHeld() {
        if (!held_) {
            // Blocked before (or already pending): left as the caller had it.
            pthread_sigmask(SIG_SETMASK, &old_, nullptr);
            return;
        }
        sigset_t pending;
        struct timespec now = {0, 0};
        while (sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) && sigtimedwait(&set_, nullptr, &now) < 0 &&
               errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    SizeLimitSignalHeld(const SizeLimitSignalHeld &) = delete;
    SizeLimitSignalHeld &operator=(const SizeLimitSignalHeld &) = delete;

private:
    sigset_t set_, old_;
    bool held_ = false;
};

}  // namespace

int append_audit_line(const char *path, std::string_view fields, const AuditKey *key, AuditLink *written) {
    Fd fd(::open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0600));
    if (fd.get() < 0) return errno;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return errno;
    if (!S_ISREG(st.st_mode)) return ENOTSUP;
    // Whoever owns the file may change its mode and rewrite it.
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) || (st.st_uid != ::geteuid() && st.st_uid != 0)) return EPERM;
    while (::flock(fd.get(), LOCK_EX) != 0)
        if (errno != EINTR) return errno;
    if (::fstat(fd.get(), &st) != 0) return errno;
    AuditLink prev, next;
    off_t torn = 0;
    if (int err = last_link(fd.get(), st.st_size, prev, torn)) return err;
    std::string text;
    if (torn > 0) {
        // The torn line is ended and named by its length, so that checking
        // tells the damage apart from an edit and the chain goes on.
        text = "\n" + seal_audit_line(prev,
                                      "\"time\":\"" + utc_now() + "\",\"pid\":" + std::to_string(getpid()) +
                                          ",\"op\":\"trail repaired\",\"torn\":" + std::to_string(torn),
                                      next, key);
        prev = next;
    }
    text += seal_audit_line(prev, fields, next, key);
    int err = 0;
    {
        SizeLimitSignalHeld held;
        err = write_all(fd.get(), text);
    }
    // Nothing more to do when even the cut fails: the next writer finds the
    // torn line and seals over it.
    if (err != 0) {
        if (::ftruncate(fd.get(), st.st_size) != 0) return err;
        return err;
    }
    if (written) *written = next;
    return 0;
}

KeyFileState read_configured_audit_key(AuditKey &key) {
    const char *path = std::getenv("ZEL_AUDIT_KEY");
    if (path == nullptr || *path == '\0') return KeyFileState::absent;
    KeyRing ring;
    if (read_key_file(path, ring) != KeyFileState::usable || ring.active() == nullptr) return KeyFileState::refused;
    static_assert(sizeof key.bytes == kOperatorKeyBytes, "a trail key is an operator key");
    std::memcpy(key.bytes, ring.active()->key, sizeof key.bytes);
    return KeyFileState::usable;
}

}  // namespace zel::platform
