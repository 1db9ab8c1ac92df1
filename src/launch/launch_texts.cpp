// Messages that a child writes: it has no message library, so their texts are loaded before the fork.
#include <cstdio>
#include <iterator>

#include "base/context.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "launch/launch_steps.h"
#include "log/log.h"

namespace {

struct loaded_text {
    int number;
    std::string text;  // with its markers; empty while it isn't loaded
};

// A step's message as doit_Child tells it; '\1', '\2' and '\3' as in launch_failure_lines.
struct failure_row {
    starter_step step;
    int number;
    const char* inserts;
};
constexpr failure_row failure_rows[] = {
    {STARTER_STEP_OUTPUT, number_file_call, "FileOpenChild(STDOUT)|\3|\1|\2|"},
    {STARTER_STEP_DUP_OUTPUT, number_system_call, "dup2(STDOUT)|\1|\2|"},
    {STARTER_STEP_DUP_ERROR, number_system_call, "dup2(STDERR)|\1|\2|"},
    {STARTER_STEP_OPEN_INPUT, number_file_call, "FileOpenChild(STDIN)|/dev/null|\1|\2|"},
    {STARTER_STEP_DUP_INPUT, number_system_call, "dup2(STDIN)|\1|\2|"},
    {STARTER_STEP_SETGID, number_system_call, "setgid()|\1|\2|"},
    {STARTER_STEP_GROUPS, number_system_call, "initgroup()|\1|\2|"},
    {STARTER_STEP_SETUID, number_system_call, "setuid()|\1|\2|"},
    {STARTER_STEP_SETEUID, number_system_call, "seteuid()|\1|\2|"},
    {STARTER_STEP_DIRECTORY, number_file_call, "chdir()|\3|\1|\2|"},
    {STARTER_STEP_EXECUTE, number_system_call, "execle()|\1|\2|"},
};
static_assert(std::size(failure_rows) == starter_step_count);
std::array<std::string, starter_step_count> failure_lines;

// The failures of a child, and what a report tells of resources.
loaded_text texts[] = {{number_file_call, {}},
                       {number_system_call, {}},
                       {number_client_resource_started, {}},
                       {number_task_resource_started, {}},
                       {number_client_resource_ended, {}},
                       {number_task_resource_ended, {}}};
bool loaded = false;

// Each marker stands in for itself, so the text comes back with its markers.
constexpr char markers[] = "&01|&02|&03|&04|&05|";

std::string text_with_markers(EX_PCX* pcx, int number) {
    char buffer[2048] = {};
    log_guard lock;
    if (pcx->hlpHnd == nullptr ||
        ZUHELP_Msg(pcx->hlpHnd, number, -1, markers, sizeof buffer, buffer, nullptr) != 0) {
        return {};
    }
    return buffer;
}

}  // namespace

void launch_load_texts(EX_PCX* pcx) {
    for (loaded_text& entry : texts) {
        entry.text = text_with_markers(pcx, entry.number);
    }
    for (const failure_row& row : failure_rows) {
        failure_lines[static_cast<size_t>(row.step)] = launch_message_line(row.number, row.inserts) + "\n";
    }
    loaded = true;
}

const std::array<std::string, starter_step_count>& launch_failure_lines() {
    return failure_lines;
}

void launch_load_texts_once(EX_PCX* pcx) {
    if (!loaded) {
        launch_load_texts(pcx);
    }
}

std::string launch_message_line(int number, std::string_view inserts) {
    for (const loaded_text& entry : texts) {
        if (entry.number == number && !entry.text.empty()) {
            return zuhelp_fill(entry.text, inserts);
        }
    }
    char head[16];
    snprintf(head, sizeof head, "U%.8d ", number);
    return head + std::string(inserts);
}
