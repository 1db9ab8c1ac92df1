// What the job processor's messages have in common. Main thread.
#pragma once

#include "channels/outgoing.h"

struct EX_PCX;
struct JP_AREA;
struct qx7_error;

// QUITT for `msg`: "OK" for number 0, else "NK"; at most 256 characters of insert. 0 or -1.
int create_and_send_quitt_message(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert);
// The same with the status forced to "OK".
int job_send_quitt_ok(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert);
// QUITT to the activation of `job` from its kept header and address.
int create_and_send_aktj_quitt_message(EX_PCX* pcx, const JP_AREA* job, int msgnr, const char* insert);

// "%d" left-justified in a blank-padded field of 10.
void job_put_pid(char (&field)[10], uint32_t pid);
// A copy of the address of a received message, made with new.
ccm_addr_t* job_keep_address(const ccm_msg_t* msg);
