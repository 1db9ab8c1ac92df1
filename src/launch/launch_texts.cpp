// Messages that a child writes: it has no message library, so their texts are loaded before the fork.
#include <cstdio>
#include <iterator>

#include "base/context.h"
#include "base/files.h"
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
    {STARTER_STEP_OUTPUT, file_message, "FileOpenChild(STDOUT)|\3|\1|\2|"},
    {STARTER_STEP_DUP_OUTPUT, system_message, "dup2(STDOUT)|\1|\2|"},
    {STARTER_STEP_DUP_ERROR, system_message, "dup2(STDERR)|\1|\2|"},
    {STARTER_STEP_OPEN_INPUT, file_message, "FileOpenChild(STDIN)|/dev/null|\1|\2|"},
    {STARTER_STEP_DUP_INPUT, system_message, "dup2(STDIN)|\1|\2|"},
    {STARTER_STEP_SETGID, system_message, "setgid()|\1|\2|"},
    {STARTER_STEP_GROUPS, system_message, "initgroup()|\1|\2|"},
    {STARTER_STEP_SETUID, system_message, "setuid()|\1|\2|"},
    {STARTER_STEP_SETEUID, system_message, "seteuid()|\1|\2|"},
    {STARTER_STEP_DIRECTORY, file_message, "chdir()|\3|\1|\2|"},
    {STARTER_STEP_EXECUTE, system_message, "execle()|\1|\2|"},
};
static_assert(std::size(failure_rows) == starter_step_count);
std::array<std::string, starter_step_count> failure_lines;

// The failures of a child, and what a report tells of resources.
loaded_text texts[] = {{file_message, {}}, {system_message, {}}, {2001094, {}},
                       {2001095, {}},      {2001096, {}},        {2001097, {}}};
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
