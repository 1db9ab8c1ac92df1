// The development server as a program of its own, and its command line.
#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "installation.h"

// `qxcp serve` and an agent, both in processes of their own.
struct console : ::testing::Test {
    scratch_folder folder;
    child_process server;
    int port = free_port();

    std::string data() const { return folder.path + "/data"; }
    std::string output;

    void serve(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments = {
            QX_SERVER_PROGRAM,    "serve",  "--system", "TESTSYS",     "--port",
            std::to_string(port), "--data", data(),     "--reconnect", "1"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        start_program(server, arguments, folder.path + "/server.out");
        ASSERT_TRUE(wait_until(10000, [&] {
            return server.output().find("listens on") != std::string::npos;
        })) << server.output();
    }
    // Starts the agent and waits for its logon; throws what happened instead.
    void log_on(installation& host) {
        host.start();
        if (!agent_is_on(host.ini["GLOBAL"]["name"])) {
            throw std::runtime_error("no logon\n" + output + host.log() + server.output());
        }
    }
    int qxcp(std::vector<std::string> arguments, bool with_data = true) {
        arguments.insert(arguments.begin(), QX_SERVER_PROGRAM);
        if (with_data) {
            arguments.insert(arguments.end(), {"--data", data()});
        }
        return run_program(arguments, output, 30000);
    }
    bool agent_is_on(const std::string& name) {
        return wait_until(20000,
                          [&] { return qxcp({"agents"}) == 0 && output.find(name) != std::string::npos; });
    }
    std::string script(const std::string& text) {
        write_file(folder.path + "/script.sh", text, 0755);
        return folder.path + "/script.sh";
    }
    bool says(const std::string& text) const { return output.find(text) != std::string::npos; }
};
