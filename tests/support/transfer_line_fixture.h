// Two agents under one server with a line between them that the test holds and cuts.
#pragma once

#include <dirent.h>

#include "agent_line.h"
#include "transfer_fixture.h"

struct transfer_line_test : transfer_test {
    agent_line line;

    // For what the server is not told of: it is looked at more often.
    bool watch(int timeout_ms, const std::function<bool()>& done) {
        return wait_until(timeout_ms, [&] {
            cp_server_step(server.get(), 2);
            return done();
        });
    }
    int order_over_line(const cp_transfer& wanted) {
        prepare_line(wanted.reverse);
        return order(wanted);
    }
    int restart_over_line(int run) {
        prepare_line(transfer(run).reverse);
        return restart(run);
    }
    bool is_over(int run) {
        return cp_transfer_is_over(transfer(run).state) && transfer(run).report_complete;
    }

    std::string report_of(int run) {
        std::string text;
        for (const cp_report_line& told_line : cp_store_lines(cp_server_store(server.get()), run)) {
            text += cp_report_line_text(told_line) + "\n";
        }
        return text;
    }
    // For the message of a failed test.
    std::string told() const {
        return story() + "---- FIRST\n" + first.log() + "---- SECOND\n" + second.log();
    }

    // The processes that work for an agent's transfers.
    static std::vector<pid_t> workers(const installation& host) {
        const std::string task = std::to_string(host.agent.pid);
        std::istringstream children(read_file("/proc/" + task + "/task/" + task + "/children"));
        std::vector<pid_t> found;
        for (pid_t child; children >> child;) {
            if (is_worker(child)) {
                found.push_back(child);
            }
        }
        return found;
    }
    static bool is_worker(pid_t pid) {
        return read_file("/proc/" + std::to_string(pid) + "/cmdline").starts_with("ft-");
    }
    static int open_descriptors(pid_t pid) {
        int count = 0;
        if (DIR* folder = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
            while (readdir(folder) != nullptr) {
                ++count;
            }
            closedir(folder);
        }
        return count - 2;
    }

  private:
    // The agents' listeners are told to each other as the line.
    void prepare_line(bool reverse) {
        for (const char* name : {"FIRST", "SECOND"}) {
            if (cp_agent* agent = cp_find_agent(server.get(), name)) {
                agent->listener_port = line.port;
            }
        }
        line.lead_to((reverse ? first : second).listener_port);
    }
};
