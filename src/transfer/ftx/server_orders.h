// Orders of the server about a transfer that a worker has.
#pragma once

#include "base/error.h"
#include "channels/messages.h"

struct EX_PCX;

// In the agent: hands the message to the transfer's worker. 0, or -1 with `err` when there is none.
int ftx_forward_to_worker(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr, qx7_error* err);
// The same; without a worker it is logged and told as unknown.
int ftx_pass_to_worker(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr, const char* what);
// 2003072 and a dump of the message. -1.
int ftx_say_unknown(const ccm_msg_t* msg, int ah_idnr, const char* what);
