// The walk behind ToLAN and ToHOST, with what they fix left open: the table and the byte orders.
#pragma once

#include "messages/conversion.h"

// Byte orders, as `byte_buffer_t` has them.
enum byte_order : int16_t { order_little = 1, order_big = 2 };

// Directions of a walk.
enum walk_check : int { check_to_lan = 1, check_to_host = 2 };

struct byte_buffer_t {
    unsigned char* data;
    int64_t size;
    int64_t offset;  // the walk's current place; may pass `size` by one field, which the next step refuses
    byte_order order;
};

struct walk_request {
    walk_check check;
    int iflags;                   // walk_ bits
    byte_order to_order;          // order of the host
    const walk_visitor* visitor;  // may be null
    content_info_t* info;         // for walk_find_content, else null
};

// Order of this machine.
byte_order native_order();

// Walks one message; everything that the public entries say holds here.
int walk(void* msg, size_t msgs, const msgconv_ctx_t* ctx, const walk_request& request, msg_error* error);
