// The starter: a small process of one thread that makes processes for this one. A process that it makes is
// this process's own child. See docs/architecture.md for its shape. Main thread, unless told otherwise.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

// What a child does before it becomes the program, in this order.
enum starter_step : int {
    STARTER_STEP_OUTPUT,  // output opened, the lines ahead of all output written
    STARTER_STEP_DUP_OUTPUT,
    STARTER_STEP_DUP_ERROR,
    STARTER_STEP_OPEN_INPUT,
    STARTER_STEP_DUP_INPUT,
    STARTER_STEP_SETGID,
    STARTER_STEP_GROUPS,
    STARTER_STEP_SETUID,
    STARTER_STEP_SETEUID,
    STARTER_STEP_DIRECTORY,
    STARTER_STEP_EXECUTE,
    starter_step_count
};

// In the line of a step that failed these bytes stand for the errno and for its text.
inline constexpr char starter_errno_byte = '\1';
inline constexpr char starter_reason_byte = '\2';

// What is to be started; everything is borrowed for the call.
struct starter_wish {
    const char* program = nullptr;
    const char* directory = nullptr;
    std::span<char* const> arguments;    // without a null behind them
    std::span<char* const> environment;  // the same
    bool identity = false;               // takes gid, groups and uid
    uid_t uid = 0;
    gid_t gid = 0;
    std::span<const gid_t> groups;
    int output = -1;               // standard output and error; -1: /dev/null
    int input = -1;                // standard input; -1: /dev/null
    rlimit descriptor_limit = {};  // rlim_max 0: the starter's
    std::string_view lines;        // written to the output ahead of everything
    // What the child writes to its standard error when a step fails, and its exit code.
    std::array<std::string_view, starter_step_count> failures;
    std::array<uint8_t, starter_step_count> exit_codes = {};
};

enum starter_result : int {
    STARTER_STARTED,     // *pid is the child, leader of its own group; the caller notes it
    STARTER_NO_PROCESS,  // the system made none: errno
    STARTER_ABSENT       // no starter, or an order that it cannot take: nothing was started, try another way
};

// Makes the starter from `program` (the running one: "/proc/self/exe"), and from now on a new one when it is
// lost. 0, or -1 with errno; starts then go on trying.
int starter_open(const char* program);
void starter_close();
// Never waits for longer than the limit: a starter that does not answer by then is given up, and what it had
// not started by then is never started.
starter_result starter_start(const starter_wish& wish, pid_t* pid);
// The end of a child was told: true when it was the starter.
bool starter_ended(pid_t pid);
pid_t starter_process_id();  // 0: there is none
void starter_set_limit(int milliseconds);

// ---- The starter's own side

// Whether this process was executed to be a starter; whoever calls the program by hand never is.
bool starter_is_wanted(int argc, const char* const* argv);
// Takes orders until the socket is closed. The exit code.
int starter_run();
