// An installation of the agent in a folder of its own, and the programs that run in it, for the system tests.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "scratch.h"

// Below TMPDIR where that is set. The listener and the jobs' users pass through it.
struct scratch_folder : scratch {
    scratch_folder();
};

// A started program. Killed at the end if it still runs.
struct child_process {
    pid_t pid = -1;
    int status = -1;  // of waitpid, once it has ended
    std::string output_path;

    ~child_process();
    bool running();
    // Waits for the end; false when it does not come in time.
    bool wait_end(int timeout_ms);
    int exit_code() const;  // -1 for an end by a signal
    void signal(int number) const;
    void kill_now();
    std::string output() const;
};

// Starts `arguments` with standard output and error in `output_path`. `user` 0 keeps the own identity.
void start_program(child_process& child, const std::vector<std::string>& arguments,
                   const std::string& output_path, const std::string& folder = "",
                   const std::map<std::string, std::string>& environment = {});
// Runs to the end and returns the exit code; output and error go to `output`.
int run_program(const std::vector<std::string>& arguments, std::string& output, int timeout_ms = 20000);

// The agent's files: bin (programs, INI, message library), temp, out, backup, resources.
struct installation {
    scratch_folder folder;
    int listener_port = 0;
    // Sections and keys of the INI file, with working values; changed by tests before start.
    std::map<std::string, std::map<std::string, std::string>> ini;
    child_process agent;

    installation(const std::string& agent_name, int server_port, const std::string& system = "TESTSYS");
    ~installation();

    std::string path(const std::string& name) const { return folder.path + "/" + name; }
    std::string ini_path() const { return path("bin/qxxjlnx.ini"); }
    void write_ini() const;
    // Writes the INI file and starts the agent.
    void start();
    // SIGTERM and the end; false when it does not come in time.
    bool stop(int timeout_ms = 20000);
    std::string log() const;  // of the running generation
    bool log_has(const std::string& text) const { return log().find(text) != std::string::npos; }
    pid_t listener_pid() const;  // child of the agent, -1 without one
};

int free_port();
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& text, mode_t mode = 0644);
std::vector<std::string> lines_of(const std::string& text);  // without their ends
bool is_root();

// A user of this host for the length of a test. Only as root.
struct test_user {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string home;
    explicit test_user(const std::string& name, bool with_home = true);
    ~test_user();
};

// Waits until `done` without a server to step. For what only the file system or a process shows.
bool wait_until(int timeout_ms, const std::function<bool()>& done);
