// The token that an order carries for the connection that it wants.
#pragma once

#include <span>

#include "base/error.h"
#include "security/mechanism.h"

struct EX_PCX;

// Accepts the server's token with the agent's own key. 0, and `*delegated` is the credential for the partner, the
// caller's, or null when the token delegates nothing; -1 with 2000105 in `error`. Main thread.
int take_order_token(EX_PCX* pcx, std::span<const unsigned char> bytes, gss_cred_id_t* delegated,
                     qx7_error* error);
