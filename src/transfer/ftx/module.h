// The module QXFTXEX: its settings, its workers, and what other rooms of the agent ask of it. Main thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "channels/messages.h"
#include "log/log.h"

struct EX_PCX;
struct ftx_entry;

// A worker of this agent.
struct __ftx_process {
    uint32_t ah_idnr;
    uint32_t ah_idnr2;
    uint16_t client;
    uint32_t userid;
    int flag;  // ftx_process_bit
    pid_t pid;
    int channel_ID;        // of the agent's end of the socket pair
    uint32_t srv_acv = 0;  // what the server tells answers about the order by
};
enum ftx_process_bit : int { FTX_PROCESS_SENDER = 1, FTX_PROCESS_REPLACEMENT = 4 };

// An order that waits at the receiver for the connection to the sender.
struct __ftx_reverse_connect_savearea {
    int ah_idnr;
    int partnerID;        // channel to the sender
    bool sent;            // the order went over it
    bool answered;        // and the sender has said something to it
    int64_t waits_since;  // when it went, on the alarm clock
    uint32_t ftx_UsrIdNr;
    uint16_t ftx_Mandant;
    ccm_addr_t order_address;  // where the order came from: server partner, module, version
    std::vector<unsigned char> ftxsend;
};

// State and settings, one for each process.
struct FTX_GLB {
    std::string fgx_TmpTemplate;
    char fgx_Owner = 'n';      // 'd' directory
    char fgx_Owner_uid = 'n';  // 'p' parent, 'u' user, 'n' none
    char fgx_Owner_gid = 'n';
    char fgx_Temp_File = '1';  // '1' write to a temporary name
    bool fgx_Performance_Test = false;
    bool fgx_Linkfiles = false;
    int fgx_PwCheck = 0;  // GLOBAL/login_check
    bool fgx_fsSpaceCheck = false;
    bool fgx_ftxinf_simulation = false;
    bool fgx_host_resolving = true;
    int ftx_delayed_shutdown = 0;
    int ftx_connectionTimeout = 10;  // seconds
    int ft_compress_strong = 10;     // megabytes of a trial in strong mode
    // From the server's answer to the logon.
    bool ft_use_md5 = false;
    int ft_rst_life = 0;  // days that a status store stays, 0: for ever
    int ft_rst_check_hh = 0;
    int ft_rst_check_mm = 0;
    int ft_rst_check_ss = 0;

    std::list<__ftx_reverse_connect_savearea> reverse_connect_queue;
    std::list<__ftx_process> ftxpq;
};
FTX_GLB& ftx_glb();
char GetFtTempFile();

int FTX_Open(EX_PCX* pcx, qx7_error* error);
int FTX_Close(EX_PCX* pcx);
// In a worker: all but the one entry that it was made for is forgotten; in any other child everything.
int FTX_after_fork(EX_PCX* pcx);

// Entry, worker record or save area with that id.
bool ftx_is_known(int ah_idnr);
// Whether the message may come from its sender, in this process and its role. What may not is told, and ends
// the agent channel that it came on (gate.cpp). The policy of the channels has judged it before.
bool ftx_may_say(EX_PCX* pcx, const ccm_msg_t* msg);

// ---- Workers (worker.cpp, worker_child.cpp)

// What the rooms above do in a new worker. Set before the first order.
struct ftx_worker_rooms {
    void (*forget)(EX_PCX*);  // modules, timers and what else belongs to the agent's process
    void (*set_title)(std::string_view);
    log_function logger;  // lines go to the agent
};
void ftx_set_worker_rooms(const ftx_worker_rooms& given);
// While a process becomes a worker: the transfer that it is made for; else null.
ftx_entry* ftx_entry_of_worker();

// Forks a worker for the entry, whose channel `partnerID` (0: none) goes to it. A pid above 0 in the agent,
// which has freed the entry then and lost the channel; 0 in the worker; -1 with `err`, and the entry stays.
pid_t ftx_start_process(EX_PCX* pcx, ftx_entry* entry, qx7_error* err);
// In a worker: the user of the order for good, before the first file is touched. 0, or -1 with 63037.
int ftx_take_identity(ftx_entry* entry, qx7_error* err);
// In a worker: FTX_FINISH to the agent (with an entry), and the process ends within five seconds.
void ftx_process_shutdown(EX_PCX* pcx, ftx_entry* entry);
// In the agent. The channel's name of a worker.
std::string ftx_worker_name(int ah_idnr);
__ftx_process* ftx_worker_of(int ah_idnr);
int ftx_process_finished(EX_PCX* pcx, ccm_msg_t* msg, int row);  // FTX_FINISH
// A child of the agent has ended. 1 when it was a worker, else 0.
int ftx_check_sigchild(EX_PCX* pcx, pid_t pid, int exit_code, int status);
int ftx_get_nof_ftx_processes();
// 2000287, a line for each worker.
void ftx_log_ftx_processes();
// FTXCHK, in a worker and in the agent: report and status that are due, and entries that wait too long.
int perform_ftx_check(EX_PCX* pcx, ccm_msg_t* msg, int row);

// ---- Connections (connect.cpp)

// Checks the order's token and begins to connect to its peer, by entry->connecting_ID. Otherwise ftx_msgNr
// and ftx_Insert tell why not.
enum ftx_connect_result : int {
    FTX_CONNECT_BEGUN = 0,
    FTX_CONNECT_REFUSED = -1,  // the order cannot be used
    FTX_CONNECT_FAILED = -2,
};
ftx_connect_result ftx_initiate_connection(EX_PCX* pcx, ftx_entry* entry, const ccm_msg_t* msg);
// The key of a connection's user context: "FTX %i".
std::string ftx_connect_key(int ah_idnr);
void ftx_connection_succeeded(EX_PCX* pcx, int ah_idnr, int channel);
// A channel of type 4 has ended: with a key "FTX n" whose handshake was not over, or else.
void ftx_connection_failed(EX_PCX* pcx, int ah_idnr, const ccm_channel_image_t& channel);
void ftx_connection_closed(EX_PCX* pcx, const ccm_channel_image_t& channel);
// In the agent, with FTXCHK: connections whose partner has not answered an order in time are given up.
void ftx_check_waiting_orders(EX_PCX* pcx);

// ---- Handlers of sr_function_list_ftx

int ftx_process_ftxsend(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxrecv(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxrecvq(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxsendq(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxdata(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxquitt(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxend(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxendq(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxrepg(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxdelete(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxinf(EX_PCX* pcx, ccm_msg_t* msg, int row);
int ftx_process_ftxcancel(EX_PCX* pcx, ccm_msg_t* msg, int row);
