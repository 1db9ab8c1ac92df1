// A development server in the test's own process, and what the system tests do with it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "installation.h"
#include "qxcp/agents/server.h"

struct server_test : ::testing::Test {
    scratch_folder server_folder;
    cp_options options;
    std::unique_ptr<cp_server, void (*)(cp_server*)> server{nullptr, cp_server_close};
    std::vector<cp_event> events;

    server_test();
    // Starts the server, or starts it again in the same folder on the same port.
    void open_server();
    void close_server() { server.reset(); }
    int port() const { return cp_server_port(server.get()); }

    bool wait(int timeout_ms, const std::function<bool()>& done) {
        return cp_server_run_until(server.get(), timeout_ms, done);
    }
    bool wait_logon(const std::string& agent, int timeout_ms = 20000);
    // Starts the agent and waits for its logon; throws what happened instead.
    void log_on(installation& host);
    int submit(const std::string& script, const std::string& agent = "", const std::string& user = "",
               const std::string& shell = "", bool wrap = true);
    cp_job& job(int run) { return *cp_find_job(server.get(), run); }
    bool wait_state(int run, cp_job_state state, int timeout_ms = 20000);
    // Until the job has ended and its report is here, or it was refused or lost.
    bool wait_done(int run, int timeout_ms = 30000);
    std::string report(int run);
    int count_events(const std::string& kind, int run = 0) const;
    std::string last_event(const std::string& kind) const;
    // What happened, for the message of a failed test.
    std::string story() const;

    static std::string own_user();
};

// An agent of that name that is logged on.
struct started_agent : installation {
    started_agent(server_test& test, const std::string& name) : installation(name, test.port()) {
        test.log_on(*this);
    }
};
