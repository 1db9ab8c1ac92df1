// What the two directions of the flow share. For the handlers of this folder.
#pragma once

#include <string_view>

#include "channels/outgoing.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/protocol.h"

inline constexpr char ftx_module[] = "QXFTXEX";
inline constexpr char ftx_server_module[] = "JPEXEC_R";

// ---- Strangers

// A message of a partner that cannot be: 63009, and its channel ends. -1.
int ftx_refuse_partner(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr);
// In a worker: the entry that a partner's message belongs to, if it came over that partner's channel and this
// process has that role (FTX_SENDER or FTX_RECEIVER). Otherwise null.
ftx_entry* ftx_entry_of_partner(EX_PCX* pcx, const ccm_msg_t* msg, int ah_idnr, int role);
// The channel of a transfer's partner gets the name "*FTX(partner,id)".
void ftx_name_channel(EX_PCX* pcx, int channel, int ah_idnr);
// The channel ends when what was sent over it has left; nobody is told.
void ftx_leave_channel(EX_PCX* pcx, int channel);
// It ends at once, and nobody is told.
void ftx_drop_channel(EX_PCX* pcx, int channel);

// ---- Orders that wait at the receiver (connect.cpp)

// Null when there is none.
__ftx_reverse_connect_savearea* ftx_area_of(int ah_idnr);
__ftx_reverse_connect_savearea* ftx_area_on(int channel);
void ftx_add_area(const ftx_entry* ftx);
void ftx_free_area(const __ftx_reverse_connect_savearea* area);

// ---- Answers to the server where no connection stands, or none any more (send.cpp)

// Whom an order came from.
struct ftx_asker {
    int ah_idnr;
    uint16_t client;
    uint32_t user;
    const ccm_addr_t& address;
};
ftx_asker ftx_asker_of(const ftx_entry* ftx);
ftx_asker ftx_asker_of(const __ftx_reverse_connect_savearea& area);
// QUITT NK for FTXSEND: the connection could not be made, or was lost.
int ftx_quit_order(EX_PCX* pcx, const ftx_asker& asker, int number, const char* insert);
// FTXSENDQ straight to the server.
int ftx_answer_order(EX_PCX* pcx, const ftx_asker& asker, int number, std::string_view insert);

// ---- The sender's state

// Its list of files was interrupted, so that the order has no answer and the store no list.
inline bool ftx_lists_in_vain(const ftx_entry* ftx) {
    return ftx->interrupted && ftx->is_sender() && (ftx->ftx_send_flag & FTX_SEND_ANSWERED) == 0;
}

// In quit_records.cpp: one FTXQUIT. 0, or -1 for what no receiver says.
int ftx_take_quit_records(EX_PCX* pcx, ftx_entry* ftx, const message_view& view, int count);
// In window.cpp: the receiver has taken another group of blocks.
void ftx_group_quitted(EX_PCX* pcx, ftx_entry* ftx);
// FTXEND, once, and nothing is read any more.
void ftx_send_end(EX_PCX* pcx, ftx_entry* ftx);
// The progress becomes 99: store, status and report.
void ftx_finish(EX_PCX* pcx, ftx_entry* ftx);
