// One agent's connection, seen from the server: bytes in, bytes out, no socket.
//
// The order of a connection: server data goes out, the agent's visit card comes; without a key that both know
// the key exchange runs; then init and accept token; from then on native frames are sealed in both
// directions.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "messages/build.h"
#include "messages/frame.h"
#include "security/key_exchange.h"
#include "security/key_store.h"
#include "security/mechanism.h"

enum class cp_link_state { card_awaited, response_awaited, accept_awaited, sealed, ended };

// What a server says of itself, the same for all connections.
struct cp_identity {
    key_manager* keys = nullptr;
    std::string name = "CP001";
    std::string system;
    int ranking = 1;                     // 1: take me; 9999: go away
    std::string cp_list;                 // "host:port;" for each other server
    unsigned quality_of_protection = 3;  // 2 to 6
};

enum class cp_link_event {
    card,        // the agent's name is known
    key_agreed,  // first contact: a new transfer key was stored
    sealed,      // the handshake is over
    message,     // `cp_received` holds it
};

struct cp_received {
    frame_address address;
    std::vector<unsigned char> body;  // wire form; starts with the 16-byte head
};

struct cp_link {
    cp_link_state state = cp_link_state::card_awaited;
    std::string agent;  // name of the visit card
    int listener_port = 0;
    std::string out;    // to be written to the socket
    std::string in;     // received and not yet a whole frame
    std::string fault;  // why the link ended, empty for an end by the agent
    cp_received received;
    key_exchange exchange;
    gss_ctx_id_t context = nullptr;

    cp_link() = default;
    ~cp_link();
    cp_link(const cp_link&) = delete;
    cp_link& operator=(const cp_link&) = delete;
};

using cp_link_handler = std::function<void(cp_link&, cp_link_event)>;

// Puts the server data into `out`.
void cp_link_open(cp_link& link, const cp_identity& identity);

// Takes bytes from the socket and tells the events in them. False when the link has ended: `fault` says why.
bool cp_link_receive(cp_link& link, const cp_identity& identity, std::string_view bytes,
                     const cp_link_handler& handler);

// Puts a sealed message into `out`. False before the handshake's end and for a message that is too long.
bool cp_link_send(cp_link& link, const cp_identity& identity, const frame_address& address,
                  const built_message& message);

// Puts a sealed connection item (key 7, 68 or 249) into `out`.
bool cp_link_send_item(cp_link& link, const cp_identity& identity, unsigned char key, const void* data,
                       size_t length);
