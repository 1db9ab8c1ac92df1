// Two agents under one server, for tests of transfers.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "qxcp/agents/transfers.h"
#include "server_fixture.h"

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
};
