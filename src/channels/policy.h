// Who may send what: one table over receiver and sender, for IPC records, application messages, connection
// items and handshake frames. Tested in the main thread before any handler runs.
#pragma once

#include "channels/messages.h"

// Processes of the agent's family, by `running_mode`, as bits.
enum ccm_receiver : int {
    CCM_IN_AGENT = 1,
    CCM_IN_LISTENER = 2,
    CCM_IN_WORKER = 4,
};

enum ccm_policy_result : int {
    CCM_POLICY_ACCEPT = 0,
    CCM_POLICY_REFUSE = 1,  // the channel it came on ends
    CCM_POLICY_DROP = 2,    // ignored without a word
};

// A row: this name, in these processes, from these senders (bits of ccm_origin). `size`: exact record size;
// with `variable` the size of the fixed part, whose last 4 bytes before it tell how many more bytes follow.
struct ccm_policy_ipc_row {
    char name[16];
    int receivers;
    int origins;
    int size;
    bool variable;
};
extern const ccm_policy_ipc_row ccm_policy_ipc[];
extern const size_t ccm_policy_ipc_count;

// The judgement alone, without effect. For IPC `body` is the record; for NAT it is the message, `module` its
// destination; for items `key`.
ccm_policy_result ccm_policy_judge_ipc(int receiver, int origin, const unsigned char* body, int len);
ccm_policy_result ccm_policy_judge_nat(int receiver, int origin, const char* module,
                                       const unsigned char* body, int len);
ccm_policy_result ccm_policy_judge_native(int receiver, int origin, int key);
ccm_policy_result ccm_policy_judge_gss(int receiver, int origin);

// Judges a received message of any type. A refusal is logged with the partner and why, and deletes the
// channel that the message came on; the message stays the caller's. 1 accepted, 0 refused or to be dropped.
// process_IPC_message and process_gss_protocol_message call it themselves.
int ccm_policy_check(EX_PCX* pcx, ccm_context_t* ccm, const ccm_msg_t* msg);
