// Messages that a child writes: it has no message library, so their texts are loaded before the fork.
#include <cstdio>
#include <iterator>

#include "base/context.h"
#include "base/files.h"
#include "base/time.h"
#include "jobs/job_area.h"
#include "jobs/job_context.h"
#include "jobs/launch_steps.h"
#include "log/log.h"

namespace {

constexpr int client_start_message = 2001094;
constexpr int task_start_message = 2001095;
constexpr int client_end_message = 2001096;
constexpr int task_end_message = 2001097;

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

loaded_text texts[] = {{2003041, {}},
                       {2003043, {}},
                       {client_start_message, {}},
                       {task_start_message, {}},
                       {client_end_message, {}},
                       {task_end_message, {}}};
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

std::string stamp(long seconds) {
    const time_t time = seconds;
    DATUM_BUFF date;
    GetDatumZeit2(&time, &date);
    return date.text;
}

void append_message(std::string* lines, long seconds, int number, const std::string& inserts) {
    *lines += stamp(seconds) + " - " + launch_message_line(number, inserts) + "\n";
}

// A resource that was there already has only the second line.
void append_resource(std::string* lines, const resource_item& item, int start_number, int end_number,
                     const std::string& inserts) {
    if (item.usage_type != resource_existed) {
        append_message(lines, item.start_timestamp, start_number, inserts);
    }
    append_message(lines, item.end_timestamp, end_number, inserts);
}

std::string resource_inserts(const JOB_START_VAR& startVar, const resource_item& item) {
    return std::to_string(startVar.jobNr) + "|" + std::to_string(startVar.clientNr) + ":" + item.object_name +
           "/" + item.resource_name;
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

std::string launch_resource_lines(const JOB_START_VAR& startVar) {
    std::string lines;
    for (const key_entry& used : startVar.job->jp_used_client_resource_list) {
        for (const resource_item& item : job_context()->used_resource_list) {
            if (item.key == used.key) {
                append_resource(&lines, item, client_start_message, client_end_message,
                                resource_inserts(startVar, item));
            }
        }
    }
    for (const resource_item& item : startVar.job->jp_used_task_resource_list) {
        append_resource(&lines, item, task_start_message, task_end_message,
                        resource_inserts(startVar, item) + "|" + item.file_path);
    }
    return lines;
}
