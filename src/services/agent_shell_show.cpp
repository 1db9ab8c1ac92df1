// The commands of the service console that show something.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/text.h"
#include "log/trace.h"
#include "services/agent_shell.h"
#include "services/agent_shell_commands.h"

extern char** environ;

namespace {

agent_shell_sources sources;

struct descriptor_counts {
    int regular = 0, socket = 0, directory = 0, link = 0, pipe = 0, block = 0, character = 0, unknown = 0;
};

void count_kind(mode_t mode, descriptor_counts* counts) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            ++counts->regular;
            break;
        case S_IFSOCK:
            ++counts->socket;
            break;
        case S_IFDIR:
            ++counts->directory;
            break;
        case S_IFLNK:
            ++counts->link;
            break;
        case S_IFIFO:
            ++counts->pipe;
            break;
        case S_IFBLK:
            ++counts->block;
            break;
        case S_IFCHR:
            ++counts->character;
            break;
        default:
            ++counts->unknown;
    }
}

// The process's descriptors, but for the one that counts and the output itself.
descriptor_counts count_descriptors(FILE* output) {
    descriptor_counts counts;
    qx_directory list(opendir("/proc/self/fd"));
    if (list.dir == nullptr) {
        return counts;
    }
    while (const dirent* entry = readdir(list.dir)) {
        int64_t fd = -1;
        if (!parse_number(entry->d_name, 0, INT32_MAX, &fd) || fd == dirfd(list.dir) ||
            (output != nullptr && fd == fileno(output))) {
            continue;
        }
        struct stat status;
        if (fstat(static_cast<int>(fd), &status) == 0) {
            count_kind(status.st_mode, &counts);
        }
    }
    return counts;
}

std::string trace_flags(const EX_PCX* pcx) {
    std::string flags;
    for (const std::atomic<char>& level : pcx->trcFlgs) {
        flags += level.load();
    }
    return printable(flags);
}

std::string hex_of(const char* text) {
    constexpr char hex_digits[] = "0123456789ABCDEF";
    std::string out;
    for (; *text != '\0'; ++text) {
        out += hex_digits[static_cast<unsigned char>(*text) >> 4];
        out += hex_digits[*text & 15];
    }
    return out;
}

// Lines of the dump: a name and what it holds.
struct dump_lines {
    FILE* file;
    void text(const char* name, const char* value) const {
        const std::string clean = as_clean_line(printable(value));
        as_print(file, "%-22s %s", name, clean.c_str());
    }
    void number(const char* name, int64_t value) const { as_print(file, "%-22s %" PRId64, name, value); }
    void letter(const char* name, char value) const {
        as_print(file, "%-22s %s", name, printable(std::string_view(&value, 1)).c_str());
    }
};

void dump_identity(const EX_PCX* pcx, const dump_lines& out) {
    out.text("sysName", pcx->sysName);
    out.text("srvVers", pcx->srvVers);
    out.text("exName", pcx->exName);
    out.text("exNodeName", pcx->exNodeName);
    out.text("exVers", pcx->exVers);
    out.text("process_name", pcx->process_name);
    out.text("ProgPfad", pcx->ProgPfad);
    out.text("IniFile", pcx->IniFile);
    out.text("hlpFile", pcx->hlpFile);
    out.text("logFile", pcx->logFile);
    out.text("trc_file", pcx->trc_file);
    out.text("pcx_WorkFolder", pcx->pcx_WorkFolder);
    out.text("pcx_TmpFolder", pcx->pcx_TmpFolder);
    out.text("pcx_OutFolder", pcx->pcx_OutFolder);
    out.text("pcx_BinFolder", pcx->pcx_BinFolder);
    out.text("efUserName", pcx->efUserName);
    out.text("pcx_runUserName", pcx->pcx_runUserName);
    out.number("ex_pid", pcx->ex_pid);
    out.number("ex_ppid", pcx->ex_ppid);
    out.number("pcx_run_uid", pcx->pcx_run_uid);
    out.number("pcx_run_euid", pcx->pcx_run_euid);
    out.number("pcx_run_gid", pcx->pcx_run_gid);
    out.number("pcx_run_egid", pcx->pcx_run_egid);
}

void dump_state(const EX_PCX* pcx, const dump_lines& out) {
    out.number("running_mode", pcx->running_mode);
    out.number("loop", pcx->loop);
    out.number("pcx_flag", pcx->pcx_flag);
    out.number("flag_signal", pcx->flag_signal);
    out.number("pcx_todo_flag", pcx->pcx_todo_flag);
    out.number("ipPort", pcx->ipPort);
    out.number("listener_pid", pcx->listener_pid);
    out.number("listener_port", pcx->listener_port);
    out.number("listener_channel_ID", pcx->listener_channel_ID);
    out.number("nof_cp_connections", pcx->nof_cp_connections);
    out.number("report_id", pcx->report_id);
    out.number("report_id_neu", pcx->report_id_neu);
    out.number("LogBuffRecNr", pcx->LogBuffRecNr);
    out.number("upgrade_ah_idnr", pcx->upgrade_ah_idnr);
    out.letter("ExStart_Typ", pcx->ExStart_Typ);
    out.letter("pcx_ExecutorState", pcx->pcx_ExecutorState);
    out.letter("ExecutorStatus", pcx->ExecutorStatus);
    out.number("open reports", sources.report_count == nullptr ? 0 : sources.report_count(GlbPcx));
}

void dump_settings(const EX_PCX* pcx, const dump_lines& out) {
    out.number("Per_JobTimeout", pcx->Per_JobTimeout);
    out.number("Per_Reconnect", pcx->Per_Reconnect);
    out.number("Per_JobCheck", pcx->Per_JobCheck);
    out.number("Per_Report", pcx->Per_Report);
    out.number("Per_KeepAlive", pcx->Per_KeepAlive);
    out.number("pcx_cmd_timeout", pcx->pcx_cmd_timeout);
    out.number("pcx_chglogIntvl", pcx->pcx_chglogIntvl);
    out.number("pcx_chglogSize", pcx->pcx_chglogSize);
    out.number("connwait", pcx->connwait);
    out.number("logBlksize", pcx->logBlksize);
    out.number("OpenFileMax", pcx->OpenFileMax);
    out.number("pcx_iGssQop", pcx->pcx_iGssQop);
    out.number("pcx_JobPwCheck", pcx->pcx_JobPwCheck);
    out.number("pcx_hardened", pcx->pcx_hardened);
    out.letter("pcx_Auth", pcx->pcx_Auth);
    out.text("trcFlgs", trace_flags(pcx).c_str());
}

}  // namespace

void agent_shell_set_sources(const agent_shell_sources& given) {
    sources = given;
}

long as_GetLinuxStatm() {
    qx_stream file(fopen("/proc/self/statm", "re"));
    long pages = -1;
    if (!file.valid() || fscanf(file.get(), "%ld", &pages) != 1) {
        return -1;
    }
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

void as_show_handle_count(const agent_shell_call& call) {
    const descriptor_counts n = count_descriptors(call.file);
    // The kinds behind Unknown are those of another system and stay 0.
    as_print(call.file,
             "File=%d; Socket=%d; Directory=%d; Symlink=%d; Pipe=%d; Block=%d; Char=%d; Unknown=%d; Job=%d; "
             "Process=%d; Thread=%d; Event=%d; Section=%d; Key=%d; ALPC=%d; Semaphore=%d; Mutant=%d; "
             "Timer=%d; IOCompletion=%d; TpWorkerFactory=%d; WindowStation=%d;",
             n.regular, n.socket, n.directory, n.link, n.pipe, n.block, n.character, n.unknown, 0, 0, 0, 0, 0,
             0, 0, 0, 0, 0, 0, 0, 0);
}

void as_show_openfd_count(const agent_shell_call& call) {
    const descriptor_counts n = count_descriptors(call.file);
    as_print(call.file, "regular=%d; socket=%d; dir=%d; symlink=%d; pipe=%d; block=%d; char=%d; unknown=%d;",
             n.regular, n.socket, n.directory, n.link, n.pipe, n.block, n.character, n.unknown);
}

void as_show_memory(const agent_shell_call& call) {
    as_print(call.file, "size=%d", static_cast<int>(as_GetLinuxStatm()));
}

void as_show_ini(const agent_shell_call& call) {
    as_print(call.file, "path=%s", call.pcx->IniFile);
}

void as_show_version(const agent_shell_call& call) {
    as_print(call.file, "%s", qx_version);
}

void as_show_build(const agent_shell_call& call) {
    as_print(call.file, "date=%s; time=%s;", __DATE__, __TIME__);
}

void as_show_pid(const agent_shell_call& call) {
    as_print(call.file, "agent pid=%i;", static_cast<int>(getpid()));
}

void as_getJobs(const agent_shell_call& call) {
    if (sources.each_job == nullptr) {
        return;
    }
    sources.each_job(
        [](void* file, const agent_shell_job& job) {
            as_print(static_cast<FILE*>(file), "ahidnr=%.8d; status=%c; name=%s; procid=%s;", job.ahidnr,
                     job.status, printable(job.name).c_str(), printable(job.procid).c_str());
        },
        call.file);
}

void as_dumpPcxEntry(const agent_shell_call& call) {
    const dump_lines out{call.file};
    dump_identity(call.pcx, out);
    dump_state(call.pcx, out);
    dump_settings(call.pcx, out);
}

void as_show_environment(const agent_shell_call& call) {
    for (char** line = environ; line != nullptr && *line != nullptr; ++line) {
        as_print(call.file, "%s", as_clean_line(printable(*line)).c_str());
    }
}

void as_show_trace_options(const agent_shell_call& call) {
    const EX_PCX* pcx = call.pcx;
    const bool memory = (pcx->trc_flag & TRC_SETTING_MEMORY) != 0;
    const char* target = memory ? "MEMORY" : "FILE";
    const int size =
        memory ? pcx->trc_max_size : static_cast<int>(std::min(pcx->trc_file_limit, unsigned{INT32_MAX}));
    const std::string flags = trace_flags(pcx);
    if (pcx->trc_trigger_text != nullptr && *pcx->trc_trigger_text != '\0') {
        as_print(call.file, "%16.16s,%s,%i,%c,%s", flags.c_str(), target, size, pcx->trc_trigger_type,
                 hex_of(pcx->trc_trigger_text).c_str());
    } else {
        as_print(call.file, "%16.16s,%s,%i,", flags.c_str(), target, size);
    }
}
