// Reading passwords without ever taking them from the command line.
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "terminal_text.h"
#include "zelctl.h"

namespace zelctl {
namespace {

void strip_newline(std::string &text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (!text.empty() && text.back() == '\r') text.pop_back();
}

}  // namespace

bool read_secret_file(const std::string &path, std::string &out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return false;
    struct stat st {};
    // Every option that reads a password file says so, on the file it reads.
    if (::fstat(fd, &st) == 0 && (st.st_mode & (S_IRWXG | S_IRWXO)))
        say_to(stderr, "zelctl: warning: others may read or change the password file %s\n", path.c_str());
    out.clear();
    char buf[4096];
    bool ok = true;
    for (;;) {
        ssize_t got = ::read(fd, buf, sizeof buf);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) ok = false;
        if (got <= 0) break;
        out.append(buf, static_cast<size_t>(got));
    }
    std::memset(buf, 0, sizeof buf);
    ::close(fd);
    if (!ok) {
        forget_secret(out);
        return false;
    }
    strip_newline(out);
    return true;
}

bool read_secret_stdin(std::string &out) {
    out.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    if (std::cin.bad()) return false;
    strip_newline(out);
    return true;
}

bool prompt_secret(const char *prompt, std::string &out) {
    FILE *tty = std::fopen("/dev/tty", "r+");
    if (!tty) return false;
    std::fputs(prompt, tty);
    std::fflush(tty);
    termios old{};
    bool restore = tcgetattr(fileno(tty), &old) == 0;
    if (restore) {
        termios quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(fileno(tty), TCSANOW, &quiet);
    }
    char buf[1024];
    bool ok = std::fgets(buf, sizeof buf, tty) != nullptr;
    if (restore) tcsetattr(fileno(tty), TCSANOW, &old);
    std::fputs("\n", tty);
    std::fclose(tty);
    if (ok) {
        out = buf;
        strip_newline(out);
    }
    std::memset(buf, 0, sizeof buf);
    return ok;
}

void forget_secret(std::string &secret) {
    // Through a volatile pointer, so that the stores are not dropped as dead.
    volatile char *p = secret.data();
    for (size_t i = 0; i < secret.size(); ++i) p[i] = '\0';
    secret.clear();
}

}  // namespace zelctl
