// The server's messages about a job that is known or was: cancel, acknowledge, forget, ask. Main thread.
#pragma once

struct EX_PCX;
struct ccm_msg_t;

int process_jobcan(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_jobdel(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_exstajqu(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_jobinf(EX_PCX* pcx, ccm_msg_t* msg, int row);

// Number of a signal's name without regard to case: TERM, ABRT, KILL, with or without "SIG"; 9 for any other.
int GetSigInt(const char* name);
