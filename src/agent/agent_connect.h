// Connections to other agents that the server orders by CONNECT. Main thread.
#pragma once

struct EX_PCX;
struct ccm_channel_image_t;
struct ccm_connect_user_context_t;
struct ccm_msg_t;

inline constexpr char connect_key_transfer[] = "FT";

// Takes the server's token, which delegates the right to present itself to the other agent, and starts to
// connect. A failure here is answered NK; a later one is by the partner's card (process_executor_data) or the
// close.
int process_connect(EX_PCX* pcx, ccm_msg_t* msg, int row);
// The handshake with the partner is over, which the server learns.
int agent_connection_established(EX_PCX* pcx, int id);
// The connection with a partner has ended, and the transfers by the older protocol with it. A CONNECT that it
// belongs to and that has no answer yet gets NK with the reason.
void agent_connection_closed(EX_PCX* pcx, const ccm_channel_image_t& channel,
                             const ccm_connect_user_context_t& context);
