// See delay_proxy.h.
#include "delay_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace zelbench {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

void no_delay(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

DelayProxy::DelayProxy(int target_port, int delay_us) : target_port_(target_port), delay_us_(delay_us) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        throw std::runtime_error("delay proxy: cannot listen on loopback");
    port_ = ntohs(a.sin_port);
    acceptor_ = std::thread([this] { accept_loop(); });
}

DelayProxy::~DelayProxy() {
    stopping_ = true;
    acceptor_.join();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int fd : sockets_) shutdown(fd, SHUT_RDWR);
    }
    for (std::thread &t : pumps_) t.join();
    for (int fd : sockets_) close(fd);
    close(listener_);
}

void DelayProxy::accept_loop() {
    while (!stopping_) {
        pollfd p{listener_, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        int client = accept(listener_, nullptr, nullptr);
        if (client < 0) continue;
        int server = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(target_port_);
        if (server < 0 || connect(server, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
            close(client);
            if (server >= 0) close(server);
            continue;
        }
        no_delay(client);
        no_delay(server);
        std::lock_guard<std::mutex> lock(mutex_);
        sockets_.push_back(client);
        sockets_.push_back(server);
        pumps_.emplace_back([this, client, server] { pump(client, server); });
        pumps_.emplace_back([this, client, server] { pump(server, client); });
    }
}

void DelayProxy::pump(int from, int to) {
    char buffer[65536];
    for (;;) {
        ssize_t n = read(from, buffer, sizeof buffer);
        if (n <= 0) break;
        std::this_thread::sleep_for(std::chrono::microseconds(delay_us_));
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(to, buffer + done, static_cast<size_t>(n - done));
            if (w <= 0) return;
            done += w;
        }
    }
    shutdown(to, SHUT_WR);
}

}  // namespace zelbench
