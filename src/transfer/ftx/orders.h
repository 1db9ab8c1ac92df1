// From an order message to an entry.
#pragma once

#include <memory>

#include "base/error.h"
#include "channels/messages.h"

struct ftx_entry;

// FTXSEND or FTXRECV. Always an entry, not in the list; with `err` filled when the order cannot be done.
std::unique_ptr<ftx_entry> CreateFtxEntry(EX_PCX* pcx, const ccm_msg_t* msg, qx7_error* err);
