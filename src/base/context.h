// The program context: settings, what is constant after the start, identity, clocks and the loop, as plain
// data that the whole process shares. What a module keeps for itself stands in the module.
#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <sys/types.h>
#include <time.h>

#include <atomic>
#include <cstdint>

#include "base/error.h"
#include "base/version.h"

struct EX_PCX;
struct TCPMSG_WORK_AREA;
struct _ExecutorVar;
struct _pzuhelp;
struct _pzulogg;
struct _pzutrace;
struct __qx_timer_context;
struct ccm_context_t;
struct gss_name_struct;
struct msgconv_ctx_t;
struct qx_code_tables;

inline constexpr size_t qx_path_size = 4096;

// Values of EX_PCX::running_mode.
enum qx_running_mode : int { MODE_AGENT = 0, MODE_LISTENER = 1, MODE_FTX = 2 };

// Values of EX_PCX::loop. Only LOOP_RUNNING may become LOOP_STOP_WANTED.
enum qx_loop_state : int {
    LOOP_LEAVE = 0,
    LOOP_RUNNING = 1,
    LOOP_STOP_WANTED = 2,
    LOOP_FAREWELL = 3,
    LOOP_DRAIN = 4,
};

// Bits of EX_PCX::pcx_flag.
enum qx_context_flag : int {
    PCX_FLAG_AGENTSHELL = 1,
    PCX_FLAG_LOGGED_IN = 2,
    PCX_FLAG_PAM_LOADED = 4,
    PCX_FLAG_LISTENER_READY = 8,
    PCX_FLAG_SERVER_CHANNEL = 16,
    PCX_FLAG_CP_SEARCH = 64,
};

// Bits of EX_PCX::pcx_todo_flag.
enum qx_todo_flag : int { PCX_TODO_TRACE_FILE = 1 };

// Bits of EX_PCX::flag_signal; bit n above them holds the setting of signal n.
enum qx_signal_flag : int { SIGNAL_PENDING_CHILD = 1 << 0, SIGNAL_PENDING_TERM = 1 << 3 };

// Bits of EX_PCX::trc_flag.
enum qx_trace_setting : int { TRC_SETTING_MEMORY = 1 };

// Letters of the single-byte switches.
enum qx_executor_state : char { EXECUTOR_RUNNING = 'R', EXECUTOR_SNOOZING = 'S' };
enum qx_executor_status : char { EXECUTOR_PRIVILEGED = 'L', EXECUTOR_UNPRIVILEGED = 'T' };
enum qx_auth_method : char { AUTH_LOCAL = 'L', AUTH_PAM = 'P' };
enum qx_start_type : char { START_COLD = 'C', START_WARM = 'W' };

// Service pointers: modules read their settings through the context, so that other processes can share the
// code. out receives at most size - 1 bytes and a NUL (a key list ends with two); the result is the length.
using pcx_get_string = int (*)(EX_PCX* pcx, const char* section, const char* key, const char* preset,
                               char* out, size_t size);
using pcx_get_bool = bool (*)(EX_PCX* pcx, const char* section, const char* key, const char* preset);
using pcx_get_int = int (*)(EX_PCX* pcx, const char* section, const char* key, const char* preset);
using pcx_put_string = int (*)(EX_PCX* pcx, const char* section, const char* key, const char* value);

// Filled before the network thread exists; afterwards only the main thread writes, except for the atomics.
struct EX_PCX {
    char ID[4] = {'%', 'P', 'C', 'X'};
    _pzuhelp* hlpHnd = nullptr;
    _pzutrace* trcHnd = nullptr;
    _pzulogg* logHnd = nullptr;
    // One level for each trace area, '0' is off; read by all threads, changed by the main thread.
    std::atomic<char> trcFlgs[16] = {};

    // Identity and files
    char sysName[33] = {};
    char srvVers[65] = {};
    char exName[33] = {};
    char exNodeName[256] = {};
    char exVers[65] = {};
    char meldName[129] = {};
    char ProgPfad[qx_path_size] = {};
    char ProgName[256] = {};
    char pcx_WorkFolder[qx_path_size] = {};
    char pcx_TmpFolder[qx_path_size] = {};
    char pcx_OutFolder[qx_path_size] = {};
    char pcx_BinFolder[qx_path_size] = {};
    char pcx_ioService[qx_path_size] = {};
    char IniFile[qx_path_size] = {};
    char hlpFile[qx_path_size] = {};
    char logFile[qx_path_size] = {};
    gss_name_struct* pcx_sName = nullptr;  // the agent's own name; set by GssOpen, released by GssClose

    // Connections and handles
    TCPMSG_WORK_AREA* pcx_hTcpMsg = nullptr;
    msgconv_ctx_t* pcx_msgctx = nullptr;
    int pcx_iGssQop = 3;
    int pcx_iIPCount = 0;
    in_addr_t* pcx_pIPList = nullptr;  // malloc'ed, pcx_iIPCount entries
    pthread_t pcx_main_threadID = {};

    // What this host tells of itself; owned by Var_Open
    _ExecutorVar* pcx_varex = nullptr;

    // Service pointers; the reading and writing ones are preset to the INI functions
    pcx_get_string getProfileString;
    pcx_get_bool getProfileBool;
    pcx_get_int getProfileInt;
    pcx_put_string putProfileString;

    // Periods in seconds, sizes in megabytes where told
    int Per_JobTimeout = 0;
    int Per_Reconnect = 0;
    int Per_JobCheck = 0;
    int Per_Report = 0;
    int Per_KeepAlive = 0;
    int pcx_cmd_timeout = 0;
    short pcx_SnoozePeriod = 0;
    time_t pcx_chglogIntvl = 0;
    unsigned pcx_chglogSize = 0;  // megabytes

    std::atomic<int> pcx_todo_flag = 0;
    char trcThreadFlag = 0;
    char logThreadFlag = 0;

    // Clocks. Alarm times follow alarm_now(); UB_Time, exStart and stamps follow the real clock.
    std::atomic<time_t> UB_Time = 0;
    time_t Srv_alarm_time = 0;
    int unquitted_srvqry = 0;
    time_t Log_alarm_time = 0;
    time_t Job_alarm_time = 0;
    time_t Cmd_alarm_time = 0;
    time_t fsh_alarmTime = 0;
    time_t exStart = 0;
    int connwait = 0;
    int ipPort = 0;
    int OpenFileMax = 0;
    short logCount = 0;
    short Takt = 0;
    std::atomic<int> pcx_flag = 0;  // qx_context_flag

    // Single-byte switches
    char ExStart_Typ = 0;        // qx_start_type
    char pcx_ExecutorState = 0;  // qx_executor_state
    char ExecutorStatus = 0;     // qx_executor_status
    char cLogToDb = 0;
    char iMsgToStdout = 0;
    char pcx_ProcInfo = 0;
    char pcx_FtPwCheck = 0;
    char pcx_JobPwCheck = 0;
    char pcx_anonymusUsr = 0;
    char pcx_smtpMail = 0;
    char pcx_hardened = 0;  // 1: GLOBAL/hardened is on
    int pcx_anonymusJob = 0;
    int pcx_anonymusFt = 0;
    int pcx_anonymusFe = 0;

    // Report to the server
    char report_type[8] = {};
    int report_id = 0;
    int report_id_neu = 0;
    int logBlksize = 0;
    char report_b_name[8] = {};
    int code_len = 0;
    // Table from the server and its inverse; null is the identity. Set by SetDefaultCode, read by all
    // threads.
    std::atomic<const qx_code_tables*> pDefaultCode = nullptr;
    int waitForChglogQu = 0;
    char pcx_Auth = 0;  // qx_auth_method
    char pcx_PamLibrary[qx_path_size] = {};
    void* pam_handle = nullptr;
    std::atomic<int> LogBuffRecNr = 0;  // lines that wait for the server

    // Users
    char efUserName[33] = {};
    char pcx_runUserName[33] = {};
    pid_t ex_pid = 0;
    pid_t ex_ppid = 0;
    char pcx_work_dir[qx_path_size] = {};
    uid_t pcx_strt_uid = 0;
    uid_t pcx_strt_euid = 0;
    char pcx_strt_realUserName[33] = {};
    uid_t pcx_run_uid = 0;
    uid_t pcx_run_euid = 0;
    gid_t pcx_run_gid = 0;
    gid_t pcx_run_egid = 0;
    gid_t pcx_run_gid_tab[1024] = {};
    gid_t* pcx_agent_gids = nullptr;  // malloc'ed, pcx_gid_nr entries
    int pcx_gid_nr = 0;

    // Later additions
    time_t rb_cleanup_time = 0;
    short pcx_rb_life = 0;
    short pcx_rb_check_hh = 0;
    short pcx_rb_check_mm = 0;
    short pcx_rb_check_ss = 0;
    char pcx_rb_dir[qx_path_size] = {};
    char pcx_res_dir[qx_path_size] = {};
    int upgrade_ah_idnr = 0;
    int upgrade_exit_code = 0;
    short ftx_sta_intervall = 0;
    short ftx_report_intervall = 0;
    short ftx_restart_intervall = 0;
    short ftx_con_timeout = 0;
    short fsh_check_interval = 0;
    char trc_file[qx_path_size] = {};
    int trc_count = 0;
    int trc_max_size = 0;  // megabytes of the ring
    unsigned trc_file_limit = 0;
    char* trc_trigger_text = nullptr;  // malloc'ed
    int trc_flag = 0;                  // qx_trace_setting
    char trc_trigger_type = 0;

    // Process and loop
    ccm_context_t* ccm = nullptr;
    std::atomic<int> loop = 0;  // qx_loop_state
    time_t shutdown_timer = 0;
    char** argv = nullptr;
    int running_mode = MODE_AGENT;
    pid_t listener_pid = 0;
    int listener_channel_ID = 0;
    time_t listener_alarm_time = 0;
    time_t listener_last_pingq = 0;
    char listener_bindaddr[64] = {};
    int listener_port = 0;
    int listener_bindlocal = 0;
    int listener_start_counter = 0;
    uid_t listener_uid = 0;
    gid_t listener_gid = 0;
    time_t timer_global = 0;
    std::atomic<int> flag_signal = 0;  // qx_signal_flag; written in signal context
    char process_name[64] = {'A', 'G', 'E', 'N', 'T'};
    int nof_cp_connections = 0;
    __qx_timer_context* timer_ctx = nullptr;

    // Trace off, services set to the functions of this floor; everything else zero.
    EX_PCX();
};

static_assert(std::atomic<int>::is_always_lock_free && sizeof(std::atomic<int>) == sizeof(int));
static_assert(std::atomic<char>::is_always_lock_free && sizeof(std::atomic<char>) == sizeof(char));
static_assert(std::atomic<time_t>::is_always_lock_free && sizeof(std::atomic<time_t>) == sizeof(time_t));

// The context of this process; null before it is made and after it is freed. Set while only one thread runs.
extern EX_PCX* GlbPcx;
EX_PCX* GetGlbPcx();

// True when the calling thread is the one that made the context, also after a fork.
bool on_main_thread();
