// The order to the starter: one record, a fixed head with groups and texts behind it. What is built here is
// read by another process, which checks it like any record from outside. Any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "launch/starter.h"

enum starter_flag : uint32_t {
    STARTER_OUTPUT = 1,    // a descriptor for standard output and error comes along; else it is /dev/null
    STARTER_INPUT = 2,     // one for standard input comes along, behind the other; else it is /dev/null
    STARTER_IDENTITY = 4,  // gid, groups and uid are taken
    STARTER_LIMIT = 8,     // the limit of descriptors is set
    STARTER_FLAGS = 15
};

inline constexpr char starter_order_mark[9] = "QXSTART1";

struct starter_order {
    char mark[8];
    uint32_t size;  // of the record with everything behind it
    uint32_t flags;
    uint32_t uid;
    uint32_t gid;
    uint32_t group_count;
    uint32_t argument_count;
    uint32_t environment_count;
    uint32_t text_size;
    uint64_t limit_soft;
    uint64_t limit_hard;
    uint8_t exit_codes[starter_step_count];  // of the child, by the step that failed; never 0
    uint8_t unused[5];
};
static_assert(sizeof(starter_order) == 72);
static_assert(offsetof(starter_order, limit_soft) == 40);
static_assert(offsetof(starter_order, exit_codes) == 56);

inline constexpr char starter_answer_mark[9] = "QXSTARTA";

struct starter_answer {
    char mark[8];
    int32_t pid;           // of the child; 0: there is none
    int32_t error_number;  // then the reason
};
static_assert(sizeof(starter_answer) == 16);

inline constexpr size_t starter_order_limit = 128 * 1024;
inline constexpr size_t starter_argument_limit = 32;
inline constexpr size_t starter_environment_limit = 256;
inline constexpr size_t starter_group_limit = 8192;

// Plain fields, since the child may call nothing of a library.
struct starter_text {
    const char* at;
    size_t length;
};

// An order as it was read; the pointers lead into the record.
struct starter_job {
    starter_order head;
    const gid_t* groups;
    const char* program;
    const char* directory;
    char* arguments[starter_argument_limit + 1];
    char* environment[starter_environment_limit + 1];
    starter_text failures[starter_step_count];
    starter_text lines;
};

// Empty when the wish passes a limit.
std::vector<unsigned char> starter_build_order(const starter_wish& wish);
// 0, or -1 for a record that does not hold what it says. `descriptors`: how many came along.
int starter_read_order(std::span<unsigned char> record, int descriptors, starter_job* job);
