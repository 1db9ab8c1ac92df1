// The tables that route application messages, each closed by a row with an empty name that holds the default.
#pragma once

#include <cstddef>

struct EX_PCX;
struct ccm_msg_t;

// `row` is the index of the row that was found; no handler needs it.
using message_handler = int (*)(EX_PCX* pcx, ccm_msg_t* msg, int row);

struct module_row {
    char name[16];
    message_handler handler;
};

struct function_row {
    char type[8 + 1];  // blank-padded to 8
    message_handler handler;
};

// By the first 8 bytes of the destination name.
extern const module_row module_function_list[];

// By the first 8 bytes of the body.
extern const function_row sr_function_list[];          // QXEXVAR
extern const function_row sr_function_list_cmd[];      // EXECCMD
extern const function_row sr_function_list_fh[];       // QXFHEX
extern const function_row sr_function_list_ft[];       // QXFTEX
extern const function_row sr_function_list_ftx[];      // QXFTXEX
extern const function_row sr_function_list_getfile[];  // GETFILE
extern const function_row sr_function_list_jp[];       // JPAKTJ_R
extern const function_row sr_function_list_rep[];      // QXREPEX
extern const function_row sr_function_list_upgr[];     // UPGRD

// Index of the row for `name` (char[64], zero-filled behind its text).
int dispatch_find_module(const char* name);
// Index of the row for a body; a body below 8 bytes meets the default row.
int dispatch_find_function(const function_row* table, const void* body, int length);

int qxexjp_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxexft_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxftx_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxexfh_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int getfile_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxexcmd_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_bindata_message(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxexupgr_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxexvar_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);
int qxexrep_exec(EX_PCX* pcx, ccm_msg_t* msg, int row);

// Default rows. Log an unnumbered line; the first two also answer QUITT 7 with an empty body, unless the
// message is empty, is itself a QUITT, or names no sender. All return -1.
int process_module_unknown(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_module_not_implemented(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_function_unknown(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_function_not_implemented(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_function_unknown_ftx(EX_PCX* pcx, ccm_msg_t* msg, int row);
