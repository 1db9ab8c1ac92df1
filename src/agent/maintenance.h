// The clock-driven work, done before each wait for a message. Main thread.
#pragma once

struct EX_PCX;

int maintenance_common(EX_PCX* pcx);
int maintenance_agent(EX_PCX* pcx);
int maintenance_listener(EX_PCX* pcx);
int maintenance_ftx(EX_PCX* pcx);

// Marks each connecting channel deleted whose time is over (message 2000064).
int check_channel_timeout(EX_PCX* pcx);

// Streams the log to the server: at most `max_blocks` blocks. Result: the count of blocks when the report
// changed meanwhile, else 0.
int send_log2server(EX_PCX* pcx, int max_blocks);
// One block. Result: the number of lines in it; with 0 nothing was sent.
int send_logblock2server(EX_PCX* pcx);
