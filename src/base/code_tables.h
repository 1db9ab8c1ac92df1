// Code tables: one byte to one byte, from the host's code to the network's and back.
#pragma once

#include <cstddef>

#include "base/context.h"

inline constexpr size_t code_table_message_size = 512;  // 256 target bytes and 256 flag bytes

// A byte without CODE_FLAG_MAPPED becomes the first one marked as substitute, a blank when there is none.
enum code_table_flag : unsigned char { CODE_FLAG_MAPPED = 1, CODE_FLAG_SUBSTITUTE = 2 };

struct qx_code_tables {
    unsigned char forward[256];
    unsigned char inverse[256];
};
static_assert(sizeof(qx_code_tables) == 512);

// Both halves map each byte to itself.
extern const qx_code_tables identity_code_tables;

// The table of a message (256 target bytes, 256 flag bytes) becomes a table of 256 bytes.
void SetCodeTab(unsigned char tab[256], const unsigned char code[code_table_message_size]);
// The table of a message and, behind it, its inverse. -1 unless `length` is 512.
int make_code_tables(const void* code, size_t length, qx_code_tables* out);
// Makes the server's table the context's default. The same table again changes nothing. Readers on other
// threads keep a valid pointer: a replaced table is never freed. -1 for a wrong length or no memory. Main
// thread.
int SetDefaultCode(EX_PCX* pcx, const void* code, size_t length);
// The context's tables, the identity when there are none. Any thread.
const qx_code_tables& GetDefaultCode(const EX_PCX* pcx);

// Translates in place.
void AreaConv(void* area, size_t length, const unsigned char table[256]);
// The text code of this host is ASCII; the two standard directions for partners that need the other one.
void ToAscii(void* area, size_t length);
void ToEbcdic(void* area, size_t length);
