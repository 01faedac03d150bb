#include "platform/audit_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

// The link the file's last line ends the chain with; an empty file starts it.
int last_link(int fd, off_t size, AuditLink &link) {
    link = AuditLink{};
    if (size == 0) return 0;
    std::string tail;  // the bytes from `pos` to the end
    off_t pos = size;
    for (;;) {
        size_t want = static_cast<size_t>(pos) < kChunk ? static_cast<size_t>(pos) : kChunk;
        if (want == 0) break;  // the file is one line
        pos -= static_cast<off_t>(want);
        std::string chunk(want, '\0');
        if (int err = read_at(fd, chunk.data(), want, pos)) return err;
        bool first = tail.empty();
        if (first && chunk.back() != '\n') return EBADMSG;  // a torn last line
        size_t nl = chunk.rfind('\n', first ? want - 2 : std::string::npos);
        if (first && want < 2) nl = std::string::npos;
        tail.insert(0, chunk);
        if (nl != std::string::npos) {
            tail.erase(0, nl + 1);
            break;
        }
        if (tail.size() > kLongestLine) return EBADMSG;
    }
    tail.pop_back();
    return read_audit_link(tail, link) ? 0 : EBADMSG;
}

}  // namespace

int append_audit_line(const char *path, std::string_view fields) {
    Fd fd(::open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
    if (fd.get() < 0) return errno;
    while (::flock(fd.get(), LOCK_EX) != 0)
        if (errno != EINTR) return errno;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return errno;
    AuditLink prev, next;
    if (int err = last_link(fd.get(), st.st_size, prev)) return err;
    std::string line = seal_audit_line(prev, fields, next);
    int err = write_all(fd.get(), line);
    // Nothing to do when even that fails: the next writer finds the torn
    // line and refuses to carry the chain on.
    if (err != 0 && S_ISREG(st.st_mode) && ::ftruncate(fd.get(), st.st_size) != 0) return err;
    return err;
}

}  // namespace zel::platform
