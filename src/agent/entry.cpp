#include "agent/entry.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/check.h"
#include "agent/encipher.h"
#include "agent/instance_lock.h"
#include "agent/listener.h"
#include "agent/listener_process.h"
#include "agent/listener_settings.h"
#include "agent/loop.h"
#include "agent/process_title.h"
#include "agent/settings.h"
#include "agent/shutdown.h"
#include "agent/signals.h"
#include "agent/timers.h"
#include "base/context.h"
#include "base/files.h"
#include "base/give_back.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/network_thread.h"
#include "identity/pam.h"
#include "launch/starter.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/frame.h"
#include "security/key_store.h"

#ifndef QX_CHANGELIST
#define QX_CHANGELIST 1
#endif

namespace {

constexpr char general_name[] = "QXXJxxx";
constexpr char main_name[] = "main";
constexpr size_t program_path_size = 256;
constexpr int log_first_send = 20;
constexpr char ping_timer[] = "LISTENER_SENDPING_WATCHOG";  // spelled so; operators' trace filters know it

// What the steps before the context hand to each other.
struct entry_state {
    int argc;
    char** argv;
    int ini_argc;  // the arguments from which the INI file is taken: without the word of a command
    char** ini_argv;
    char start_folder[qx_path_size];
    char work_folder[qx_path_size];
    char program[program_path_size];
    char ini[qx_path_size];
};

std::string now_text() {
    char stamp[32];
    GetDtChar2(stamp, sizeof stamp);
    return stamp;
}

void print_usage() {
    printf(
        "%s usage : QXXJxxx [[ini=]<file>]\n                                  <file>     ... Use this INI "
        "file\n",
        now_text().c_str());
}

constexpr char help_text[] =
    "qxxjlnx, the agent of a workload-automation server: it logs on to a server process under its name,\n"
    "runs jobs and commands by the server's order under the users that it names, and returns their states,\n"
    "return codes and reports. Jobs outlive the agent.\n"
    "\n"
    "  qxxjlnx [[ini=]FILE]      run the agent with this INI file (default: the program's path with "
    "\".ini\");\n"
    "                            it stays in the foreground and ends in order by SIGTERM\n"
    "  qxxjlnx check [ini=FILE]  look at settings, folders, keys, port and server without starting;\n"
    "                            one line each, exit code 0 or 1\n"
    "  qxxjlnx encipher          read a text from standard input and print the form in which a setting such\n"
    "                            as MAIL/smtp_password may hold it\n"
    "  qxxjlnx -V[FILE], --version\n"
    "                            print version and changelist, or write them to the file\n"
    "  qxxjlnx --help            this text\n"
    "\n"
    "Relative paths in the INI file count from the folder of the program, a relative FILE here from the\n"
    "current folder. The INI file needs GLOBAL/system, TCP/IP/cp and VARIABLES/QX_EX_JOB_MD; the commented\n"
    "sample qxxjlnx.ini is a start. The log is ../temp/QXXJxxx.l00 unless GLOBAL/logging says otherwise.\n"
    "\n"
    "Exit codes: 0 ended in order, 1 could not start or ended abnormally, 248 stopped for an upgrade.\n"
    "\n"
    "Read on: man qxxjlnx; docs/operations.md (install, keys, rights, what to do when something fails),\n"
    "docs/configuration.md (all settings), docs/messages.md (what the numbers in the log mean).\n";

void print_normal_end() {
    printf("%s U02000001 QX7 Agent '%s' version '%s' ended normaly\n", now_text().c_str(), general_name,
           qx_version);
}

int print_abnormal_end(const char* name) {
    printf("%s U02000002 QX7 Agent '%s' version '%s' ended abnormaly\n", now_text().c_str(), name,
           qx_version);
    return agent_exit_failure;
}

int wrong_use(const char* name) {
    print_usage();
    return print_abnormal_end(name);
}

bool is_help(const std::string& argument) {
    for (const char* form : {"?", "-?", "/?", "H", "HE", "HEL", "HELP", "-H", "-HE", "-HEL", "-HELP"}) {
        if (argument == form) {
            return true;
        }
    }
    return false;
}

bool is_version(const std::string& argument) {
    return argument.compare(0, 2, "-V") == 0 || argument == "--VERSION";
}

// Descriptors 0 to 2 must exist, or a report or a socket becomes the standard output of a job.
void open_standard_descriptors() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= 2) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > 2) {
        close(fd);
    }
}

// In a set-user-id installation the caller's PATH must not decide what root runs.
bool is_set_user_id() {
    return getuid() != 0 && geteuid() == 0;
}

void secure_environment() {
    if (is_set_user_id()) {
        setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    }
}

int print_version(const char* argument) {
    char text[256];
    snprintf(text, sizeof text, "%s QX7 Agent version %s, changelist %i", main_name, qx_version,
             QX_CHANGELIST);
    const char* file = strcasecmp(argument, "--version") == 0 ? "" : argument + 2;
    if (*file == '\0') {
        printf("%s\n", text);
        return agent_exit_normal;
    }
    if (is_set_user_id() && seteuid(getuid()) != 0) {
        return agent_exit_failure;  // never write the caller's file with root's rights
    }
    FILE* out = fopen(file, "w");
    if (out == nullptr || fprintf(out, "%s\n", text) < 0 || fclose(out) != 0) {
        printf("version file '%s': %s\n", file, strerror(errno));
        return agent_exit_failure;
    }
    return agent_exit_normal;
}

// ---- the steps before the context; each returns 0, or -1 after it told the failure

// A program that was found by PATH has no "/" in its name.
int find_program(entry_state* state) {
    std::string name = state->argv[0] == nullptr ? "" : state->argv[0];
    char linked[qx_path_size];
    if (name.find('/') == std::string::npos && access(name.c_str(), F_OK) != 0) {
        const ssize_t length = readlink("/proc/self/exe", linked, sizeof linked - 1);
        if (length > 0) {
            name.assign(linked, static_cast<size_t>(length));
        }
    }
    if (GetFilePfad(name.c_str(), state->start_folder, state->program, sizeof state->program) != 0) {
        wrong_use(general_name);
        return -1;
    }
    return 0;
}

int read_start_folder(entry_state* state) {
    if (GetCurrDir(state->start_folder, sizeof state->start_folder) != 0) {
        printf("OrigDir buffer too small\n");
        return -1;
    }
    return 0;
}

int enter_work_folder(entry_state* state) {
    std::string folder(path_folder_name(state->program));
    if (folder.empty()) {
        folder = state->start_folder;
    }
    if (ChangeToDir(folder.c_str()) != 0) {
        wrong_use(main_name);
        return -1;
    }
    if (GetCurrDir(state->work_folder, sizeof state->work_folder) != 0) {
        printf("WorkDir buffer too small\n");
        return -1;
    }
    return 0;
}

void return_to_start(const entry_state& state) {
    ChangeToDir(state.start_folder);  // the process ends: a folder that vanished meanwhile changes nothing
}

int ini_failure(const entry_state& state, const char* file, int number) {
    printf("%s U02003041 Invalid 'access'-call, filename '%s', Error : '%s'\n", now_text().c_str(), file,
           strerror(number));
    print_abnormal_end(main_name);
    return_to_start(state);
    return -1;
}

// Who starts a set-user-id program must not choose what root reads.
bool ini_is_trusted(const char* file) {
    struct stat status;
    return !is_set_user_id() ||
           (stat(file, &status) == 0 && status.st_uid == 0 && (status.st_mode & 022) == 0);
}

int find_ini(entry_state* state) {
    char name[qx_path_size];
    char completed[qx_path_size];
    if (entry_ini_name(state->ini_argc, state->ini_argv, state->program, name, sizeof name) != 0) {
        return ini_failure(*state, state->ini_argv[1], ENAMETOOLONG);
    }
    if (GetFilePfad(name, state->start_folder, completed, sizeof completed) != 0) {
        return ini_failure(*state, name, errno);
    }
    static FILE_CAT catalogue;
    GetFileCatalog(completed, 0, CATALOGUE_ALL, nullptr, &catalogue);
    if (catalogue.fc_errno != 0) {
        return ini_failure(*state, completed, catalogue.fc_errno);
    }
    copy_text(state->ini, catalogue.fc_PfadName);
    if (access(state->ini, F_OK) != 0) {
        return ini_failure(*state, state->ini, errno);
    }
    if (!ini_is_trusted(state->ini)) {
        return ini_failure(*state, state->ini, EPERM);
    }
    return 0;
}

// The name of a running program, for the person who looks for it.
std::string program_of(pid_t pid) {
    char name[64] = "";
    if (FILE* in = fopen(("/proc/" + std::to_string(pid) + "/comm").c_str(), "re"); in != nullptr) {
        if (fgets(name, sizeof name, in) != nullptr) {
            name[strcspn(name, "\n")] = '\0';
        }
        fclose(in);
    }
    return printable(name);
}

int be_the_only_one(const entry_state& state) {
    pid_t holder = 0;
    switch (instance_lock(state.ini, &holder)) {
        case instance_lock_taken:
            return 0;
        case instance_lock_failed:
            fprintf(
                stderr,
                "%s lock file '%s.lock' cannot be used: %s. The agent goes on, but a second start with this "
                "INI file would not be noticed\n",
                now_text().c_str(), state.ini, strerror(errno));
            return 0;
        default:
            fprintf(stderr,
                    "%s process %d (%s) already runs as the agent of '%s': stop it first, or start this one "
                    "with an INI file, port and log of its own\n",
                    now_text().c_str(), static_cast<int>(holder), program_of(holder).c_str(), state.ini);
            print_abnormal_end(main_name);
            return_to_start(state);
            return -1;
    }
}

// ---- the steps with a context

EX_PCX* make_context(const entry_state& state, int* exit_code) {
    qx7_error error;
    EX_PCX* pcx = PcxInit(state.ini, state.program, &error);
    if (pcx == nullptr) {
        printf("%s U02003041 Invalid 'PcxMalloc()' call, file name '%s'. Error: ('%d' - %s)\n",
               now_text().c_str(), state.ini, errno, strerror(errno));
        return_to_start(state);
        *exit_code = print_abnormal_end(main_name);
        return nullptr;
    }
    if (error.qx_msgnr != 0) {
        __log(error.qx_msgnr, "%s|", error.qx_msgInsert);
        settings_explain(pcx, error, stderr);
        return_to_start(state);
        Close_All(pcx, 1, 0);
        *exit_code = agent_exit_failure;
        return nullptr;
    }
    return pcx;
}

void dump_settings(EX_PCX* pcx) {
    LOG_IniFile(pcx);
    LOG_Pcx(pcx);
    LOG_Varex(pcx);
    LOG_Jpex(pcx);
}

int abnormal_start(EX_PCX* pcx, const entry_state& state, bool log_it) {
    if (log_it) {
        __log(number_agent_ended_abnormally, "%s|%s|", pcx->exName, pcx->exVers);
    }
    return_to_start(state);
    Close_All(pcx, 1, 1);
    return agent_exit_failure;
}

// Channel manager, signals, network thread: the first failure ends the row.
int open_channels(EX_PCX* pcx) {
    ccm_error_t ccm_error;
    if (ccm_open(pcx, &pcx->ccm, &ccm_error) != 0) {
        __log(number_system_call, "CCM_OPEN|Result=-1|");
        return -1;
    }
    qx7_error error;
    if (signal_open(pcx, &error) != 0) {
        __log(number_system_call, "signal_open()|Result=0|");  // says 0; it stays so
        return -1;
    }
    if (ccm_thread_start(pcx->ccm, &ccm_error) != 0) {
        __log(number_system_call, "CCM_START_THREAD|Result=-1|");
        return -1;
    }
    return 0;
}

// Before there are threads, and before anything secret is in memory.
void open_starter() {
    if (starter_open("/proc/self/exe") != 0) {
        __log(-1, "no starter could be made (%s): processes are started by fork, which takes longer",
              strerror(errno));
    }
}

int open_security(EX_PCX*) {
    qx7_error error;
    if (GssOpen(&error) != 0 || error.qx_msgnr != 0) {
        __log(error.qx_msgnr, "%s|", error.qx_msgInsert);
        return -1;
    }
    return 0;
}

int open_framing(EX_PCX* pcx) {
    TCPMSG_WORK_AREA* framing = TcpMsg_Open(tcp_used_by_agent);
    if (framing == nullptr) {
        return -1;
    }
    TCPMSG_PARMS parameters = {};
    parameters.iSizeOfParms = tcp_parms_size;
    parameters.iMaxPhysMsgSize = SetMaxMsgSize(pcx);
    TCP_Parms(framing, &parameters);
    pcx->pcx_hTcpMsg = framing;
    return 0;
}

int open_timers(EX_PCX* pcx) {
    if (timer_open(&pcx->timer_ctx, pcx->ccm, &pcx->trcFlgs[TRC_TCPIP]) != 0) {
        return -1;
    }
    return timer_add(pcx->timer_ctx, ping_timer, "", 0, listener_ping_period, listener_ping_wd_handler, pcx);
}

int abnormal_start_with_thread(EX_PCX* pcx, const entry_state& state, bool log_it) {
    ccm_thread_end(pcx->ccm);
    return abnormal_start(pcx, state, log_it);
}

// A child shares the parent's streams and must run none of its exit functions.
int finish(EX_PCX* pcx, const entry_state& state) {
    ccm_thread_end(pcx->ccm);
    return_to_start(state);
    const bool child = pcx->running_mode != MODE_AGENT;
    const int exit_code = child ? agent_exit_normal : agent_end_code(pcx);
    Close_All(pcx, exit_code, 1);
    if (child) {
        _exit(exit_code);
    }
    return exit_code;
}

int run_agent(const entry_state& state) {
    init_logLock();
    init_traceLock();
    init_effUserLock();
    int exit_code = agent_exit_normal;
    EX_PCX* pcx = make_context(state, &exit_code);
    if (pcx == nullptr) {
        return exit_code;
    }
    dump_settings(pcx);
    open_starter();
    if (open_channels(pcx) != 0) {
        return abnormal_start_with_thread(pcx, state, true);
    }
    if (BindPamDll() == -1) {
        return abnormal_start_with_thread(pcx, state, false);
    }
    if (open_security(pcx) != 0) {
        return abnormal_start_with_thread(pcx, state, true);
    }
    if (open_framing(pcx) != 0) {
        return abnormal_start_with_thread(pcx, state, true);
    }
    pcx->argv = state.argv;
    pcx->Log_alarm_time = alarm_now() + log_first_send;
    if (open_timers(pcx) != 0) {
        return abnormal_start_with_thread(pcx, state, true);
    }
    pcx->loop = LOOP_RUNNING;
    agent_loop(pcx);
    return finish(pcx, state);
}

}  // namespace

entry_request entry_classify(int argc, const char* const* argv) {
    const std::string argument = argc > 1 ? upper(argv[1]) : "";
    if (argc > 1 && is_help(argument)) {
        return entry_request_help;
    }
    if (argc > 1 && argument == "--HELP") {
        return entry_request_long_help;
    }
    if (argc > 1 && argc <= 3 && std::string_view(argv[1]) == "check") {
        return entry_request_check;
    }
    if (argc > 2) {
        return entry_request_wrong;
    }
    if (argc > 1 && std::string_view(argv[1]) == "encipher") {
        return entry_request_encipher;
    }
    if (argc > 1 && is_version(argument)) {
        return entry_request_version;
    }
    return entry_request_run;
}

int entry_ini_name(int argc, const char* const* argv, const char* program_path, char* out, unsigned size) {
    std::string name;
    if (argc < 2) {
        name = std::string(program_path) + ".ini";
    } else {
        const std::string compared = lower(argv[1]);
        name = argv[1];
        if (compared.compare(0, 2, "-i") == 0) {
            name = name.substr(2);
        } else if (compared.compare(0, 4, "ini=") == 0) {
            name = name.substr(4);
        }
    }
    return copy_text(out, size, name) == name.size() ? 0 : -1;
}

int agent_main(int argc, char** argv) {
    memory_set_up();
    if (argc == 2 && strcmp(argv[1], listener_argument) == 0) {
        return listener_main(argc, argv);
    }
    if (starter_is_wanted(argc, argv)) {
        return starter_run();
    }
    open_standard_descriptors();
    secure_environment();
    process_title_prepare(argc, argv);
    static entry_state state;
    state.argc = argc;
    state.argv = argv;
    const entry_request request = entry_classify(argc, argv);
    if (request == entry_request_help) {
        print_usage();
        print_normal_end();
        return agent_exit_normal;
    }
    if (request == entry_request_long_help) {
        return fputs(help_text, stdout) < 0 ? agent_exit_failure : agent_exit_normal;
    }
    if (request == entry_request_encipher) {
        return encipher_command(stdin, stdout, stderr);
    }
    if (request == entry_request_wrong) {
        return wrong_use(general_name);
    }
    const int command_words = request == entry_request_check ? 1 : 0;
    state.ini_argc = argc - command_words;
    state.ini_argv = argv + command_words;
    if (getcwd(state.start_folder, sizeof state.start_folder) == nullptr) {
        printf("getcwd error - errno = %d, '%s'\n", errno, strerror(errno));
        return agent_exit_failure;
    }
    if (find_program(&state) != 0) {
        return agent_exit_failure;
    }
    if (request == entry_request_version) {
        return print_version(argv[1]);
    }
    if (read_start_folder(&state) != 0 || enter_work_folder(&state) != 0 || find_ini(&state) != 0) {
        return agent_exit_failure;
    }
    if (request == entry_request_check) {
        return check_command(state.ini, state.program, stdout);
    }
    if (be_the_only_one(state) != 0) {
        return agent_exit_failure;
    }
    return run_agent(state);
}
