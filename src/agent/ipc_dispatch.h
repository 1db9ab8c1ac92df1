// The table of internal events and of records between the agent's own processes. Main thread.
#pragma once

#include "agent/dispatch.h"

struct ccm_context_t;

struct ipc_row {
    char name[16];
    message_handler handler;
};

// Closed by an empty name with the default handler.
extern const ipc_row ipc_function_list[];

int process_IPC_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg);

// Logger of the child processes: the line goes to the agent. Any thread.
void ipc_logger(int number, const char* insert);
// Logger while a child sets up: drops the line.
void dummy_logger(int number, const char* insert);
