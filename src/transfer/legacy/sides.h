// What the files of this folder share beside areas: the two ways of an order, and who may say what.
#pragma once

#include "channels/messages.h"
#include "transfer/legacy/area.h"

// FT_SEND and FT_RECV, once the order is an area. 0, or -1 with the area's Result.
int process_ft_send(FT_AREA* area, const ccm_msg_t* msg);
int process_ft_recv(FT_AREA* area, const ccm_msg_t* msg);

// True when the message does not come from `origin`: that is logged, and a partner's channel ends.
bool ft_refuse_other_side(EX_PCX* pcx, const ccm_msg_t* msg, ccm_origin origin);
