// From an order message to a transfer.
#pragma once

#include <memory>
#include <span>

#include "transfer/legacy/area.h"

// FT_SEND or FT_RECV. Always an area, not in the list; with a Result when the order cannot be done.
std::unique_ptr<FT_AREA> create_ft_area(EX_PCX* pcx, const ccm_msg_t* msg, bool destination);

// Who acts for an order, found out and tested. `user` empty: the agent.
struct ft_login {
    std::string user;
    std::string home;
    uid_t uid = 0;
    gid_t gid = 0;
};
// `name` is what the order wants to work on, `number` its run. `fixed` and `variable` are the two password
// fields. 0, or -1 with `error`.
int ft_check_login(EX_PCX* pcx, int number, std::string_view name, std::span<const unsigned char> variable,
                   std::span<const unsigned char> fixed, ft_login* login, qx7_error* error);

// The sender's record length and line ends, the receiver's line ends and owner, from the rest field.
void FT_Send_Cnv_Filename(FT_AREA* area);
void FT_Recv_Cnv_Filename(FT_AREA* area);
