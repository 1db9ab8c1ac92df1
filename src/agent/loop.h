// The message loop: the only place where the program's logic runs. Main thread.
#pragma once

struct EX_PCX;
struct ccm_context_t;
struct ccm_msg_t;

// Runs maintenance, timers and one message at a time until `pcx->loop` is 0. In a process that was forked
// from a handler the same loop goes on under the child's `running_mode`.
void agent_loop(EX_PCX* pcx);

// Sends one received message to the dispatcher of its kind. The message stays the caller's.
int loop_dispatch_message(EX_PCX* pcx, ccm_msg_t* msg);

// Connection-level items. Unknown keys are ignored. Always 0.
int process_protocol_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg);
// Application messages: by module, then by type. Dropped with result 0 while the process shuts down.
int process_NAT_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg);

// Item 249: logs what the server says and shuts the agent down.
int process_system_shutdown(EX_PCX* pcx, ccm_msg_t* msg);
// Item 7: no effect.
int process_close_connection(EX_PCX* pcx, ccm_msg_t* msg);
