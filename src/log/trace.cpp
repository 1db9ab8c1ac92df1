// The front of the trace: settings of the context and the calls of all modules.
#include "log/trace.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <utility>

#include "base/profile.h"
#include "base/text.h"
#include "log/trace_lines.h"

namespace {

constexpr char trace_section[] = "TRACE";

struct trace_key {
    trc_area area;
    const char* key;
    const char* if_off;  // read when the key says "0"
};

constexpr trace_key trace_keys[] = {
    {TRC_TCPIP, "tcp/ip", nullptr},    {TRC_FT, "ft_debug", "filetransfer"},
    {TRC_JOB, "job_debug", nullptr},   {TRC_EX_INIT, "ex_init", nullptr},
    {TRC_SIGNAL, "signal", nullptr},   {TRC_EVENT, "event", "fh_debug"},
    {TRC_MAIL, "mail", nullptr},       {TRC_VAR, "var_debug", nullptr},
    {TRC_LOG, "log_debug", nullptr},   {TRC_GETFILE, "getfile", nullptr},
    {TRC_ZU, "zu_debug", nullptr},     {TRC_DNST, "dnst_debug", nullptr},
    {TRC_FILE, "file_debug", nullptr}, {TRC_MEMORY, "memory", nullptr},
};
static_assert(std::size(trace_keys) == trc_area_count);

char digit_or_off(char c) {
    return c >= '0' && c <= '9' ? c : '0';
}

char read_level(const EX_PCX* pcx, const char* key, const char* preset) {
    char value[ini_record_size];
    GetPrvProfileString(trace_section, key, preset, value, sizeof value, pcx->IniFile);
    return digit_or_off(value[0]);
}

// The handle is read under the lock: a caller may swap it for a moment.
template <typename Write>
void with_handle(Write write) {
    if (GlbPcx == nullptr) {
        return;
    }
    trace_guard guard;
    if (is_trace(GlbPcx->trcHnd)) {
        write(GlbPcx->trcHnd);
    }
}

void trace_formatted(const char* format, va_list arguments) {
    if (GlbPcx == nullptr) {
        return;
    }
    char text[2048];
    vsnprintf(text, sizeof text, format, arguments);
    with_handle([&](PZUTRACE handle) { ZUTRACE_Text(handle, text, -1); });
}

}  // namespace

void _TraceText(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    trace_formatted(format, arguments);
    va_end(arguments);
}

void iostrc(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    trace_formatted(format, arguments);
    va_end(arguments);
}

void _TraceTrace(const char* title, const void* address, int length) {
    with_handle([&](PZUTRACE handle) { ZUTRACE_Trace(handle, title, address, length); });
}

void trcdump(const char* title, const void* address, int length) {
    _TraceTrace(title, address, length);
}

void trcdump_limited(const char* title, const void* address, int length, int limit) {
    _TraceTrace(title, address, std::min(length, limit));
}

void trc_set_flags(EX_PCX* pcx, std::string_view flags) {
    for (size_t i = 0; i < std::size(pcx->trcFlgs); ++i) {
        pcx->trcFlgs[i].store(i < flags.size() ? digit_or_off(flags[i]) : '0', std::memory_order_relaxed);
    }
}

void InitTrcFlgs(EX_PCX* pcx) {
    trc_set_flags(pcx, "");
    const char all[2] = {read_level(pcx, "all_trace", "0"), '\0'};
    for (const trace_key& row : trace_keys) {
        char level = all[0];
        if (level == '0') {
            level = read_level(pcx, row.key, all);
            if (level == '0' && row.if_off != nullptr) {
                level = read_level(pcx, row.if_off, all);
            }
        }
        pcx->trcFlgs[row.area].store(level, std::memory_order_relaxed);
    }
}

PZUTRACE trc_swap_handle(EX_PCX* pcx, PZUTRACE trace) {
    trace_guard guard;
    return std::exchange(pcx->trcHnd, trace);
}

int OpenTraceFile(EX_PCX* pcx) {
    trace_guard guard;
    PZUTRACE handle = pcx->trcHnd;
    if (!is_trace(handle)) {
        return -1;
    }
    copy_text(handle->trc_file, pcx->trc_file);
    handle->filename[0] = '\0';
    handle->iFileCount = pcx->trc_count;
    handle->uFileLimit = pcx->trc_file_limit;
    handle->mainThreadID = pcx->pcx_main_threadID;
    ZUTRACE_set_trigger(handle, pcx->trc_trigger_type, pcx->trc_trigger_text);
    trc_set_rt_size(handle, (pcx->trc_flag & TRC_SETTING_MEMORY) != 0 ? pcx->trc_max_size : 0);
    zutrace_start_tracing(handle);
    // A child's file appears with its first line: most of them never write one.
    const bool file_now = pcx->running_mode == MODE_AGENT && (handle->flag & TRACE_RING) == 0;
    return file_now ? zutrace_create_tracefile(handle) : 0;
}

void trace_name_for_child(const char* pattern, const char* text, char* out, size_t size) {
    std::string name(pattern);
    // Behind the last "#": a text between two of them would leave no "##", and the child would rotate
    // nothing.
    const size_t last = name.rfind('#');
    name.insert(last == std::string::npos ? name.size() : last + 1, text);
    copy_text(out, size, name);
}
