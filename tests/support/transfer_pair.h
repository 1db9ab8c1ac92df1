// Two agents under one server and the line between them, for tests of transfers.
#pragma once

#include <dirent.h>

#include "agent_line.h"
#include "qxcp/agents/transfers.h"
#include "server_fixture.h"

struct transfer_pair : server_test {
    static constexpr const char* source_name = "SOURCE";
    static constexpr const char* destination_name = "DEST";

    scratch_folder data;
    agent_line line;
    std::unique_ptr<installation> source;
    std::unique_ptr<installation> destination;

    void start_agents() {
        source = std::make_unique<installation>(source_name, port());
        destination = std::make_unique<installation>(destination_name, port());
        source->start();
        destination->start();
        ASSERT_TRUE(wait_both()) << told();
    }
    bool wait_both() { return wait_logon(source_name) && wait_logon(destination_name); }

    // For what the server is not told of: it is looked at more often.
    bool watch(int timeout_ms, const std::function<bool()>& done) {
        return wait_until(timeout_ms, [&] {
            cp_server_step(server.get(), 2);
            return done();
        });
    }

    // From `from` to `to`, paths on the two hosts, over the line. 0 with a failure of the test.
    int order(const cp_transfer& wish) {
        prepare_line(wish.reverse);
        std::string error;
        const int run = cp_order_transfer(server.get(), wish, error);
        EXPECT_NE(run, 0) << error;
        return run;
    }
    int restart(int run) {
        prepare_line(transfer(run).reverse);
        std::string error;
        const int next = cp_restart_transfer(server.get(), run, {}, error);
        EXPECT_NE(next, 0) << error;
        return next;
    }
    cp_transfer wish(const std::string& from, const std::string& to) const {
        cp_transfer wish;
        wish.source.agent = source_name;
        wish.source.path = from;
        wish.destination.agent = destination_name;
        wish.destination.path = to;
        EXPECT_EQ(cp_complete_paths(wish), "");
        return wish;
    }

    cp_transfer& transfer(int run) { return *cp_find_transfer(server.get(), run); }
    // Its final state and its whole report are here, or no more will come.
    bool is_over(int run) {
        return cp_transfer_is_over(transfer(run).state) && transfer(run).report_complete;
    }
    bool wait_over(int run, int timeout_ms = 30000) {
        return wait(timeout_ms, [&] { return is_over(run); });
    }
    std::string report_of(int run) {
        std::string text;
        for (const cp_report_line& line_of_it : cp_store_lines(cp_server_store(server.get()), run)) {
            text += cp_report_line_text(line_of_it) + "\n";
        }
        return text;
    }
    std::string told() const {
        return story() + "\n---- " + source_name + "\n" + source->log() + "\n---- " + destination_name +
               "\n" + destination->log();
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
        return read_file("/proc/" + std::to_string(pid) + "/cmdline").rfind("ft-", 0) == 0;
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
        for (const char* name : {source_name, destination_name}) {
            if (cp_agent* agent = cp_find_agent(server.get(), name)) {
                agent->listener_port = line.port;
            }
        }
        line.lead_to((reverse ? source : destination)->listener_port);
    }
};
