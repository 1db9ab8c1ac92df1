// The connection to the server: what a communication process says, the visit cards, the logon, and liveness.
// The search is in cp_search.h. Main thread.
#pragma once

#include "agent/cp_search.h"

struct EX_PCX;
struct ccm_channel_image_t;
struct ccm_msg_t;
struct qx7_error;

// Builds the list of candidates and starts the search. Result: the number of candidates, -1 without memory.
int server_connection_start(EX_PCX* pcx, qx7_error* error);
// Port of `TCP/IP/cp`, 0 when absent.
int get_main_cp_port(EX_PCX* pcx);

// Item 65 of a candidate.
int process_server_data(EX_PCX* pcx, ccm_msg_t* msg);
// Item 68 of the server.
int process_cp_server_list(EX_PCX* pcx, ccm_msg_t* msg);
// Item 4: the card of the agent that this one connected to, and of one that the listener accepted.
int process_executor_data(EX_PCX* pcx, ccm_msg_t* msg);
int process_executor_data_listener(EX_PCX* pcx, ccm_msg_t* msg);
// The own card. The key hash is zero in the listener, which has no keys.
int send_visitcard(EX_PCX* pcx, int channel_id);

// The handshake on the server channel is over: logs on.
int server_connection_established(EX_PCX* pcx, int channel_id);
// The chosen server process is gone before the handshake was over: says what that may mean for the agent's
// key.
void server_handshake_failed(EX_PCX* pcx, const ccm_channel_image_t& channel);
// The server channel is gone.
void server_connection_lost(EX_PCX* pcx);
// Keep-alive, only while a server channel stands. Silence means that nothing was received.
int maintenance_server_connection(EX_PCX* pcx);
// When that has something to do next, on the alarm clock; only while a server channel stands.
time_t server_connection_due(EX_PCX* pcx);
int send_srvquery(EX_PCX* pcx);
int send_exstop(EX_PCX* pcx);
