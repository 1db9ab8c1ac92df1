#include "services/agent_shell.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "identity/own_place.h"
#include "log/log.h"
#include "services/agent_shell_commands.h"

namespace {

constexpr size_t command_word_max = 256;
constexpr size_t argument_max = 1024;
constexpr int line_max = 8192;
constexpr char not_yet[] = "Not yet implemented";

struct command_row {
    kwd_cmd code;
    bool whole_help_as_title;
    agent_shell_action action;
};

void show_commands(const agent_shell_call& call) {
    for (const agent_command* row = agent_commands; row->code != kwd_last; ++row) {
        as_print(call.file, "%s", row->help);
    }
}

void say_not_yet(const agent_shell_call& call) {
    as_print(call.file, not_yet);
}

// The name alone is what it shows.
void nothing_more(const agent_shell_call&) {}

void abort_now(const agent_shell_call& call) {
    if (call.file != nullptr) {
        fflush(call.file);
    }
    abort();
}

constexpr command_row command_rows[] = {
    {kwd_cmd_get_commands, false, show_commands},
    {kwd_cmd_get_handles, false, say_not_yet},
    {kwd_cmd_get_handle_count, false, as_show_handle_count},
    {kwd_cmd_get_memory, false, as_show_memory},
    {kwd_cmd_get_perf_info, false, say_not_yet},
    {kwd_cmd_get_tcp_handles, false, say_not_yet},
    {kwd_cmd_get_ini, false, as_show_ini},
    {kwd_cmd_get_version, false, as_show_version},
    {kwd_cmd_get_build_info, false, as_show_build},
    {kwd_cmd_get_agent_pid, false, as_show_pid},
    {kwd_cmd_get_fts, false, say_not_yet},
    {kwd_cmd_get_jobs, false, as_getJobs},
    {kwd_cmd_get_events, false, say_not_yet},
    {kwd_cmd_get_reports, false, say_not_yet},
    {kwd_cmd_get_sockets, false, nothing_more},
    {kwd_cmd_get_pcx_dump, false, as_dumpPcxEntry},
    {kwd_cmd_get_log_dump, false, say_not_yet},
    {kwd_cmd_get_trc_dump, false, say_not_yet},
    {kwd_cmd_dump, false, say_not_yet},
    {kwd_cmd_get_env, false, as_show_environment},
    {kwd_cmd_set_ini_param, false, say_not_yet},
    {kwd_cmd_set_ftx_param, false, say_not_yet},
    {kwd_cmd_set_agent_param, false, as_setAgentParam},
    {kwd_cmd_trace_flush, false, as_trace_flush},
    {kwd_cmd_abort_agent, true, abort_now},
    {kwd_cmd_destroy_rtrace_eyec, true, as_destroy_ring_eye_catcher},
    {kwd_cmd_get_openfd_count, false, as_show_openfd_count},
    {kwd_cmd_get_trace_options, false, as_show_trace_options},
    {kwd_cmd_put_bin, false, as_put_bin},
    {kwd_cmd_simulate, false, as_simulate},
    {kwd_last, false, nullptr},
};

const agent_command* find_command(std::string_view name) {
    const agent_command* row = agent_commands;
    while (row->code != kwd_last && name != row->name) {
        ++row;
    }
    return row->code == kwd_last ? nullptr : row;
}

void run_command(const agent_command& command, const agent_shell_call& call) {
    const command_row* row = command_rows;
    while (row->code != kwd_last && row->code != command.code) {
        ++row;
    }
    as_print(call.file, "%s", row->whole_help_as_title ? command.help : command.name);
    if (row->action == nullptr) {
        as_print(call.file, "Not supported");
        return;
    }
    row->action(call);
}

qx_stream open_output(const char* path) {
    qx_descriptor file(create_in_place(path, 0600));
    qx_stream stream(file.valid() ? fdopen(file.get(), "w") : nullptr);
    if (!stream.valid()) {
        const int number = errno;
        __PutLogText("error opening agent shell output");
        __PutLogText("   error: %d - %s", number, error_text(number).c_str());
        errno = number;
        return {};
    }
    file.release();
    return stream;
}

// Half of an output would be taken for the whole: a file that could not be written is none.
int close_output(qx_stream* stream, const char* path) {
    const bool failed = ferror(stream->get()) != 0;
    FILE* file = stream->release();
    const int result = fclose(file);
    if (!failed && result == 0) {
        return 0;
    }
    const int number = result != 0 ? errno : EIO;
    __PutLogText("error writing agent shell output");
    __PutLogText("   error: %d - %s", number, error_text(number).c_str());
    FileRemove(path);  // where that fails too, the number told already says enough
    errno = number;
    return -1;
}

}  // namespace

// Help texts are known to people by their words; the odd ones stay as they are.
const agent_command agent_commands[] = {
    {kwd_cmd_get_commands, "GET_COMMANDS", "%s", "GET_COMMANDS - lists all commands."},
    {kwd_cmd_get_handles, "GET_HANDLES", "", "GET_HANDLES - lists the open handles."},
    {kwd_cmd_get_handle_count, "GET_HANDLE_COUNT",
     "File=%d; Socket=%d; Directory=%d; Symlink=%d; Pipe=%d; Block=%d; Char=%d; Unknown=%d; Job=%d; "
     "Process=%d; Thread=%d; Event=%d; Section=%d; Key=%d; ALPC=%d; Semaphore=%d; Mutant=%d; Timer=%d; "
     "IOCompletion=%d; TpWorkerFactory=%d; WindowStation=%d;",
     "GET_HANDLE_COUNT - counts the open handles by their kind."},
    {kwd_cmd_get_memory, "GET_MEMORY", "size=%d", "GET_MEMORY - memory of the agent in kilobytes."},
    {kwd_cmd_get_perf_info, "GET_PERF_INFO", "", "GET_PERF_INFO - shows performance figures."},
    {kwd_cmd_get_tcp_handles, "GET_TCP_HANDLES", "", "GET_TCP_HANDLES - lists the TCP handles."},
    {kwd_cmd_get_ini, "GET_INI", "path=%s", "GET_INI - path of the INI file."},
    {kwd_cmd_get_version, "GET_VERSION", "%s", "GET_VERSION - version of the agent."},
    {kwd_cmd_get_build_info, "GET_BUILD_INFO", "date=%s; time=%s;",
     "GET_BUILD_INFO - date and time of the build."},
    {kwd_cmd_get_agent_pid, "GET_AGENT_PID", "agent pid=%i;", "GET_AGENT_PID - process id of the agent."},
    {kwd_cmd_get_fts, "GET_FTS", "", "GET_FTS - lists the file transfers."},
    {kwd_cmd_get_jobs, "GET_JOBS", "ahidnr=%.8d; status=%C; name=%s; procid=%s;",
     "GET_JOBS - lists the jobs that the agent knows."},
    {kwd_cmd_get_events, "GET_EVENTS", "", "GET_EVENTS - lists the events."},
    {kwd_cmd_get_reports, "GET_REPORTS", "", "GET_REPORTS - lists the report transfers."},
    {kwd_cmd_get_sockets, "GET_SOCKETS", "", "GET_SOCKETS - lists the sockets."},
    {kwd_cmd_get_pcx_dump, "GET_PCX_DUMP", "%s", "GET_PCX_DUMP - shows the program context."},
    {kwd_cmd_get_log_dump, "GET_LOG_DUMP", "", "GET_LOG_DUMP - shows the log handle."},
    {kwd_cmd_get_trc_dump, "GET_TRC_DUMP", "", "GET_TRC_DUMP - shows the trace handle."},
    {kwd_cmd_dump, "DUMP", "", "DUMP - shows a part of the memory."},
    {kwd_cmd_get_env, "GET_ENV", "%s", "GET_ENV [name] - shows the environment of the agent."},
    {kwd_cmd_set_ini_param, "SET_INI_PARAM", "", "SET_INI_PARAM var='value', example: logon=Y"},
    {kwd_cmd_set_ftx_param, "SET_FTX_PARAM", "",
     "SET_FTX_PARAM var='value' - changes a setting of transfers."},
    {kwd_cmd_set_agent_param, "SET_AGENT_PARAM", "",
     "SET_AGENT_PARAM euser=name - switches the effective user of the agent, for tests."},
    {kwd_cmd_trace_flush, "TRACE_FLUSH", "",
     "TRACE_FLUSH [file] - writes the trace that is in memory to files."},
    {kwd_cmd_abort_agent, "ABORT_AGENT", "", "ABORT_AGENT -  force to crash agent with SIGSEGV."},
    {kwd_cmd_destroy_rtrace_eyec, "DESTROY_RTRACE_EYEC", "",
     "DESTROY_RTRACE_EC -  force to destroy ringtrace eyecatcher area."},
    {kwd_cmd_get_openfd_count, "GET_OPENFD_COUNT",
     "regular=%d; socket=%d; dir=%d; symlink=%d; pipe=%d; block=%d; char=%d; unknown=%d;",
     "GET_OPENFD_COUNT - counts the open descriptors by their kind."},
    {kwd_cmd_get_trace_options, "GET_TRACE_OPTIONS", "%16.16s,%s,%i,%c,%s",
     "GET_TRACE_OPTIONS - shows flags, target, size and trigger of the trace."},
    {kwd_cmd_put_bin, "PUT_BIN", "", "PUT_BIN client,storage_name,ressource_name,overwrite-Y/N,file_path"},
    {kwd_cmd_simulate, "SIMULATE", "", "SIMULATE - changes the behavior of agent for testing purposes"},
    {kwd_last, "", "", ""},
};

int process_agent_shell_command(const char* output_file, const char* request) {
    __PutLogText("EXECUTE: %s", as_clean_line(printable(request)).c_str());
    const std::string_view text = lstrip(request);
    if (text.empty()) {
        errno = ENOENT;
        return -1;
    }
    const std::string word = upper(text.substr(0, std::min(text.find(' '), command_word_max)));
    const std::string_view behind = text.substr(std::min(text.size(), text.find(' ')));
    const std::string argument(strip(behind).substr(0, argument_max));
    qx_stream output = open_output(output_file);
    if (!output.valid()) {
        return -1;
    }
    const agent_command* command = find_command(word);
    if (command == nullptr) {
        __PutLogText("Agent Command '%s' is not implemented", as_clean_line(printable(word)).c_str());
        as_print(output.get(), "Agent Command '%s' is not implemented",
                 as_clean_line(printable(word)).c_str());
    } else {
        run_command(*command, {GlbPcx, output.get(), argument});
    }
    return close_output(&output, output_file);
}

void as_print(FILE* file, const char* format, ...) {
    char line[line_max];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (file == nullptr) {
        __PutLogText("%s", line);
        return;
    }
    fprintf(file, "%s\n", line);
}
