// Two agents under one server, for tests of transfers.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "qxcp/agents/transfers.h"
#include "server_fixture.h"

namespace fs = std::filesystem;

// Bytes that no compressor makes much of.
inline std::string pattern(size_t size, uint32_t seed = 1) {
    std::string text(size, '\0');
    for (char& c : text) {
        seed = seed * 1664525 + 1013904223;
        c = static_cast<char>(seed >> 24);
    }
    return text;
}

// The worker of an agent, -1 without one.
inline pid_t worker_of(const installation& agent, int run) {
    const std::string end = "-" + std::to_string(run);
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
        std::ifstream stat(entry.path() / "stat");
        std::string text;
        if (pid <= 0 || !std::getline(stat, text)) {
            continue;
        }
        // "pid (name) state parent …"
        const size_t behind = text.rfind(')');
        const bool child = std::atoi(text.c_str() + std::min(behind + 4, text.size())) == agent.agent.pid;
        const std::string title = read_file(entry.path().string() + "/cmdline").c_str();
        if (child && title.starts_with("ft-") && title.ends_with(end)) {
            return pid;
        }
    }
    return -1;
}

struct transfer_test : server_test {
    installation first{"FIRST", port()};
    installation second{"SECOND", port()};
    scratch_folder files;

    transfer_test() {
        for (const char* part : {"from", "to"}) {
            mkdir(from(part).c_str(), 0777);
            chmod(from(part).c_str(), 0777);
        }
    }
    // A path below the folder of files; sources are in "from", destinations in "to".
    std::string from(const std::string& name) const { return files.path + "/" + name; }

    void start_agents() {
        first.start();
        second.start();
        ASSERT_TRUE(wait_logon("FIRST")) << first.log();
        ASSERT_TRUE(wait_logon("SECOND")) << second.log();
    }
    // From FIRST to SECOND, as the agents' own user.
    cp_transfer wish(const std::string& source, const std::string& destination) const {
        cp_transfer transfer;
        transfer.source = {"FIRST", from(source), "", "", ""};
        transfer.destination = {"SECOND", from(destination), "", "", ""};
        return transfer;
    }
    int order(cp_transfer transfer) {
        std::string error = cp_complete_paths(transfer);
        EXPECT_EQ(error, "");
        const int run = cp_order_transfer(server.get(), std::move(transfer), error);
        EXPECT_NE(run, 0) << error;
        return run;
    }
    int restart(int run) {
        std::string error;
        const int next = cp_restart_transfer(server.get(), run, {}, error);
        EXPECT_NE(next, 0) << error;
        return next;
    }
    cp_transfer& transfer(int run) { return *cp_find_transfer(server.get(), run); }
    // Until its state is final and its report is here.
    bool wait_over(int run, int timeout_ms = 30000) {
        return wait(timeout_ms, [&] {
            return cp_transfer_is_over(transfer(run).state) && transfer(run).report_complete;
        });
    }
    bool wait_running(int run, int timeout_ms = 20000) {
        return wait(timeout_ms, [&] { return transfer(run).state != cp_transfer_state::ordered; });
    }
    std::string state(int run) { return cp_transfer_state_name(transfer(run).state); }
    // All that is known, for the message of a failed test.
    std::string tale(int run) {
        std::string text = story() + "transfer " + std::to_string(run) + " " + state(run) + "\n";
        for (const cp_report_line& line : cp_store_lines(cp_server_store(server.get()), run)) {
            text += cp_report_line_text(line) + "\n";
        }
        return text + "---- FIRST\n" + first.log() + "---- SECOND\n" + second.log();
    }
    bool reported(int run, int number) {
        for (const cp_report_line& line : cp_store_lines(cp_server_store(server.get()), run)) {
            if (line.number == number) {
                return true;
            }
        }
        return false;
    }
    // All files below a folder with their content, folders with a '/' behind them.
    std::map<std::string, std::string> content(const std::string& folder) const {
        std::map<std::string, std::string> all;
        for (const auto& entry : fs::recursive_directory_iterator(from(folder))) {
            const std::string name = fs::relative(entry.path(), from(folder));
            all[entry.is_directory() ? name + "/" : name] =
                entry.is_directory() ? "" : read_file(entry.path());
        }
        return all;
    }
    size_t leftovers() const {
        size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(from("to"))) {
            count += entry.path().extension() == ".tmp" ? 1 : 0;
        }
        return count;
    }
    bool workers_end(int run) {
        return wait(20000, [&] { return worker_of(first, run) < 0 && worker_of(second, run) < 0; });
    }
};
