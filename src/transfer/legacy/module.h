// The module QXFTEX: transfers by the older protocol, one file each, block by block, in the agent's main
// process, and lists of files for the server. Main thread.
#pragma once

#include "base/error.h"
#include "channels/messages.h"

struct EX_PCX;

// Reads the settings; `message_size` is that of a FT_DATA in all. Behind FTX_Open, whose settings count here
// too. 0.
int FT_Open(EX_PCX* pcx, size_t message_size);
// Ends what is under way; nothing is sent any more. 0.
int FT_Close(EX_PCX* pcx);
// In a forked child: everything is forgotten, no file is touched. 0.
int FT_after_fork(EX_PCX* pcx);
// Whether a transfer or a list is under way, which a restart would interrupt.
bool FT_IsActive();

// Handlers of sr_function_list_ft. 0, or -1 when the message led to nothing.
int process_ft_send_recv(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ft_end_message(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ft_data(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ft_quit(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ft_cancel(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ft_dir(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_ft_quitt_message(EX_PCX* pcx, ccm_msg_t* msg, int row);
// FT_CHK: transfers and connections that nobody uses any more.
int process_ft_chk(EX_PCX* pcx, ccm_msg_t* msg, int row);

// The connection that CONNECT ordered stands: the server learns it.
int ft_connection_success(EX_PCX* pcx, const ccm_connect_user_context_t& context);
// A sealed agent channel has ended, and with it all transfers over it.
void process_ft_stop(EX_PCX* pcx, int channel);
