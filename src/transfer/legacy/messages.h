// What a side of a transfer sends: to its partner, and to the server. All return 0, or -1 when nothing went.
#pragma once

#include "channels/messages.h"
#include "transfer/legacy/area.h"

// ---- To the partner

// The order as it came, under the name FT_RECV and with what this side made of it.
int send_ft_recv(FT_AREA* area);
// Takes over a message whose FT_DATA stands ready behind its record's place.
int send_ft_data(FT_AREA* area, ccm_msg_t* msg, size_t length);
// `number` 0: the file is whole.
int send_ft_end(FT_AREA* area, int number, std::string_view insert);
// The receiver's answer to `request`, with the area's Result.
int answer_ft_quit(FT_AREA* area, const ccm_msg_t* request);
// The same with a number that is no failure of the transfer.
int answer_ft_quit(FT_AREA* area, const ccm_msg_t* request, int number, std::string_view insert);

// ---- To the server, from the sender

// The end of a transfer.
int send_ft_quit(FT_AREA* area);
// The same in the name of the module alone, when the partner is gone.
int send_ft_quit_lost(FT_AREA* area);
int Ft_Sta(FT_AREA* area);

// Logs Result and tells whoever gave the order; then the area may be deleted.
void refuse_ft_order(FT_AREA* area, const ccm_msg_t* msg);

// What this side knows for a restart, and what it has from its partner. Empty when nobody wants it.
std::string Ft_CreateDistLen(const FT_AREA* area);
