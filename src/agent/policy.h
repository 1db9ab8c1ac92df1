// Who may send what: one table, asked in the main loop before any handler runs. A message that no row allows
// ends the channel it came on.
#pragma once

struct EX_PCX;
struct ccm_msg_t;

enum policy_result {
    policy_accept,
    policy_drop,   // no handler, the connection stays
    policy_refuse  // logged, and the channel that it came on is deleted
};

// What the policy needs to know of a message's origin.
struct policy_origin {
    int running_mode;    // of this process
    bool internal;       // posted by this process itself
    bool from_listener;  // the agent's channel to its listener
    bool from_worker;    // the agent's channel to a transfer worker
    bool from_agent;     // a child's channel to the agent
    int channel_type;    // type of the channel now
    bool sealed;
    bool chosen_candidate;  // type 6, chosen, search over
};

// IPC record `name` (16 bytes, zero padded).
policy_result policy_ipc(const policy_origin& origin, const char* name);
// Application message of `length` bytes for `module`.
policy_result policy_nat(const policy_origin& origin, const char* module, const char* body, int length);
// Connection-level item.
policy_result policy_native(const policy_origin& origin, int key);
// Handshake frame.
policy_result policy_gss(const policy_origin& origin);

// Looks the origin of `msg` up, asks the table of its kind, logs a refusal with partner and reason, and
// deletes the channel. Main thread.
policy_result policy_check_message(EX_PCX* pcx, ccm_msg_t* msg);
