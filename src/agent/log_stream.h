// The log on its way to the server, and the change from one log file to the next. Main thread.
#pragma once

struct EX_PCX;
struct ccm_msg_t;

inline constexpr int log_blocks_each_turn = 40;
inline constexpr int log_blocks_at_end = 999;

// At most `max_blocks` blocks, none while a log change is under way. Result: the count of blocks when the
// report changed meanwhile, else 0.
int send_log2server(EX_PCX* pcx, int max_blocks);
// One block of lines. Result: the number of lines in it; with 0 nothing was sent.
int send_logblock2server(EX_PCX* pcx);

// The server ends a report record; a new log begins.
int process_chglog(EX_PCX* pcx, ccm_msg_t* msg, int row);
// The agent's own request for a new report record; a new log begins.
int send_chglogr(EX_PCX* pcx);
int process_chglogqu(EX_PCX* pcx, ccm_msg_t* msg, int row);
// When the log is large or old enough: send_chglogr.
void check_log_change(EX_PCX* pcx);
