// The steps from an order message to an entry. For orders.cpp and its neighbours.
#pragma once

#include "base/error.h"
#include "channels/messages.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/entry.h"

// An order that is being read. FTXSEND and FTXRECV are one record.
struct ftx_order {
    EX_PCX* pcx;
    const ccm_msg_t* msg;
    message_view view;
    MSG_TYPE_FTXSEND record;
    bool to_receiver;  // FTXRECV
    ftx_entry* entry;

    const MSG_TYPE_FTXSNDRCV& fields() const { return record.ftxsndrcv; }
};

// Each takes its part over into the entry. 0, or -1 with `err`.
using order_step = int (*)(const ftx_order& order, qx7_error* err);

// 3610: an order that this agent cannot make sense of.
int order_refused(const ftx_order& order, qx7_error* err);

// Code table and coding of a text order.
int ftx_process_codepage(const ftx_order& order, qx7_error* err);
// The own part of the rest field.
int order_read_rest(const ftx_order& order, qx7_error* err);
// Account, home and password of whom the agent acts for.
int order_read_user(const ftx_order& order, qx7_error* err);
// What a sender shall read is a file, when it is there.
int order_check_source(const ftx_order& order, qx7_error* err);
