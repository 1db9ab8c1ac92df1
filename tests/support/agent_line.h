// A line between two agents that a test owns: it stands still after some bytes, goes on, and can be cut.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/time.h>

#include <atomic>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "loopback.h"

class agent_line {
  public:
    int port = 0;

    agent_line() : listener(listen_on_loopback(&port)), wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        worker = std::thread([this] { run(); });
    }
    agent_line(const agent_line&) = delete;
    agent_line& operator=(const agent_line&) = delete;
    ~agent_line() {
        ends = true;
        poke();
        worker.join();
        close(listener);
        close(wake);
    }

    void lead_to(int port_there) { target = port_there; }
    // After so many bytes of both directions together nothing passes any more; -1: without end.
    void stand_still_after(long bytes) {
        left = bytes;
        poke();
    }
    bool stands_still() const { return left == 0; }
    void go_on() { stand_still_after(-1); }
    // Ends what is connected. What comes later passes.
    void cut() {
        cut_wanted = true;
        go_on();
    }
    int connections() const { return open_count; }
    long passed() const { return passed_bytes; }

  private:
    struct connection {
        int ends[2];
        connection(int caller, int called) : ends{caller, called} {}
        ~connection() {
            close(ends[0]);
            close(ends[1]);
        }
    };

    int listener;
    int wake;
    std::atomic<int> target = 0;
    std::atomic<long> left = -1;
    std::atomic<long> passed_bytes = 0;
    std::atomic<int> open_count = 0;
    std::atomic<bool> cut_wanted = false;
    std::atomic<bool> ends = false;
    std::list<connection> open_connections;
    std::thread worker;

    void poke() { eventfd_write(wake, 1); }

    void run() {
        while (!ends) {
            if (cut_wanted.exchange(false)) {
                open_connections.clear();
            }
            open_count = static_cast<int>(open_connections.size());
            std::vector<pollfd> wait{{listener, POLLIN, 0}, {wake, POLLIN, 0}};
            if (!stands_still()) {
                for (const connection& one : open_connections) {
                    wait.push_back({one.ends[0], POLLIN, 0});
                    wait.push_back({one.ends[1], POLLIN, 0});
                }
            }
            if (poll(wait.data(), wait.size(), 1000) <= 0) {
                continue;
            }
            pass_what_came(wait);
            if (wait[0].revents != 0) {
                take_caller();
            }
            eventfd_t pokes;
            eventfd_read(wake, &pokes);
        }
    }

    void take_caller() {
        const int caller = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int called = caller < 0 ? -1 : connect_to_loopback(target);
        if (called < 0) {
            close(caller);
            return;
        }
        const timeval patience{5, 0};  // with an end that does not read
        setsockopt(caller, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        setsockopt(called, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        open_connections.emplace_back(caller, called);
    }

    void pass_what_came(const std::vector<pollfd>& wait) {
        auto at = open_connections.begin();
        for (size_t i = 2; i + 1 < wait.size(); i += 2) {
            const bool whole = (wait[i].revents == 0 || pass(at->ends[0], at->ends[1])) &&
                               (wait[i + 1].revents == 0 || pass(at->ends[1], at->ends[0]));
            at = whole ? std::next(at) : open_connections.erase(at);
        }
    }

    // False when one of the two is gone.
    bool pass(int from, int to) {
        char bytes[16384];
        const long budget = left;
        if (budget == 0) {
            return true;
        }
        const size_t size = budget > 0 && budget < static_cast<long>(sizeof bytes)
                                ? static_cast<size_t>(budget)
                                : sizeof bytes;
        const ssize_t got = recv(from, bytes, size, 0);
        if (got <= 0) {
            return false;
        }
        passed_bytes += got;
        long expected = budget;
        if (budget > 0) {
            left.compare_exchange_strong(expected, budget - got);  // unless the test has changed it
        }
        for (ssize_t sent = 0; sent < got;) {
            const ssize_t n = send(to, bytes + sent, static_cast<size_t>(got - sent), MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            sent += n;
        }
        return true;
    }
};
