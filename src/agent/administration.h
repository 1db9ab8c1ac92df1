// Module QXEXVAR: what the server asks and orders about the agent itself. Main thread.
#pragma once

struct EX_PCX;
struct ccm_msg_t;

int process_exquery(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_srvinfo(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_trcget(EX_PCX* pcx, ccm_msg_t* msg, int row);
// Every process of the agent's family applies the trace settings; only the agent logs and forwards them.
int process_trcset(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_quitt(EX_PCX* pcx, ccm_msg_t* msg, int row);
