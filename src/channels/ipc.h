// IPC records: the dispatcher, and the handlers that concern channels alone. The other handlers stand above;
// the table that names all of them is handed down. Main thread.
//
// A record reaches its handler only after the policy (channels/policy.h) has accepted sender and size, so a
// handler may read all fixed fields and `len` bytes behind them.
#pragma once

#include "channels/ipc_records.h"
#include "channels/messages.h"

using ipc_handler = int (*)(EX_PCX* pcx, ccm_msg_t* msg, int row);

struct ipc_function_t {
    char name[16];  // zero padded; the row with the empty name holds the default handler and ends the table
    ipc_handler handler;
};

// Tests the policy, then compares all 16 bytes of the name with each row and calls the handler found. Returns
// its result, or -1 when the policy refused (which was logged, and the channel is deleted).
int process_IPC_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg, const ipc_function_t* functions);

// A cleared record of `size` bytes with its name, as a message body. Null without memory.
ccm_msg_t* ipc_record_alloc(ccm_context_t* ccm, const char* msgtype, int size);

// Handlers. The result is 0, or -1 after a log line.
int process_ipc_logging(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_natquitt(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_gsshs_remote(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_exdata_remote(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_routenat(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_passfd(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_passfd_quitt(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_remote_close(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_timer_fire(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_unknown(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ipc_not_implemented(EX_PCX* pcx, ccm_msg_t* msg, int row);
