#include "server_fixture.h"

#include <pwd.h>
#include <unistd.h>

#include <stdexcept>

server_test::server_test() {
    options.system = "TESTSYS";
    options.folder = server_folder.path + "/cp";
    options.job_check = 1;
    options.reconnect = 1;
    options.report_interval = 1;
    options.control = false;
    open_server();
}

void server_test::open_server() {
    std::string error;
    server = cp_server_open(options, error);
    ASSERT_TRUE(server) << error;
    options.port = cp_server_port(server.get());
    cp_server_observe(server.get(), [this](const cp_event& event) { events.push_back(event); });
}

bool server_test::wait_logon(const std::string& agent, int timeout_ms) {
    return wait(timeout_ms, [&] { return cp_find_agent(server.get(), agent) != nullptr; });
}

void server_test::log_on(installation& host) {
    host.start();
    if (!wait_logon(host.ini["GLOBAL"]["name"])) {
        throw std::runtime_error("no logon\n" + story() + host.agent.output() + host.log());
    }
}

int server_test::submit(const std::string& script, const std::string& agent, const std::string& user,
                        const std::string& shell, bool wrap) {
    cp_job wanted;
    wanted.name = "TEST.JOB";
    wanted.script = script;
    wanted.agent = agent;
    wanted.user = user.empty() ? own_user() : user;
    wanted.shell = shell;
    wanted.wrap = wrap;
    std::string error;
    const int run = cp_submit(server.get(), wanted, error);
    EXPECT_NE(run, 0) << error;
    return run;
}

bool server_test::wait_state(int run, cp_job_state state, int timeout_ms) {
    return wait(timeout_ms, [&] { return job(run).state == state; });
}

bool server_test::wait_done(int run, int timeout_ms) {
    return wait(timeout_ms, [&] {
        return cp_state_is_final(job(run).state) && (job(run).forgotten || !options.fetch_reports);
    });
}

std::string server_test::report(int run) {
    return read_file(job(run).report_copy);
}

int server_test::count_events(const std::string& kind, int run) const {
    int count = 0;
    for (const cp_event& event : events) {
        count += event.kind == kind && (run == 0 || event.run == run) ? 1 : 0;
    }
    return count;
}

std::string server_test::last_event(const std::string& kind) const {
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        if (event->kind == kind) {
            return event->text;
        }
    }
    return "";
}

std::string server_test::story() const {
    std::string text;
    for (const cp_event& event : events) {
        text += event.time + " " + event.kind + " " + event.text + "\n";
    }
    return text;
}

std::string server_test::own_user() {
    const passwd* entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : "";
}
