// A loopback TCP relay that holds every chunk for a fixed time before
// passing it on, in both directions: the round trips of a library call show
// as they would between an agent and a directory across a network, with no
// kernel tools.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace zelbench {

class DelayProxy {
public:
    // Listens on 127.0.0.1 (a free port) and relays to 127.0.0.1:target.
    DelayProxy(int target_port, int delay_us);
    ~DelayProxy();
    DelayProxy(const DelayProxy &) = delete;
    DelayProxy &operator=(const DelayProxy &) = delete;

    int port() const { return port_; }

private:
    void accept_loop();
    void pump(int from, int to);

    int target_port_, delay_us_;
    int listener_ = -1, port_ = 0;
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::vector<int> sockets_;
    std::vector<std::thread> pumps_;
    std::thread acceptor_;
};

}  // namespace zelbench
