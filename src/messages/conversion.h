// The walk over messages: validates an image against the catalogue, turns integers between wire and host
// order and, when asked for, evaluates the field checks. On a little-endian host it changes no byte.
//
// Any thread may convert a message that it owns: nothing is shared but tables that never change after
// `msgconv_open`.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "messages/catalogue.h"

inline constexpr size_t msg_error_text_size = 1024;

struct err_element_t {
    int32_t code;
    char subst[msg_error_text_size];
};

struct err_list_t {
    uint64_t length;
    err_element_t* list;  // from malloc, owned by the list
};

// code          message number of the error, 0 when there is none
// subst         its inserts, "|" behind each
// warning_list  warnings; whoever owns the record frees them with free_warning_list
struct msg_error {
    int32_t code = 0;
    char subst[msg_error_text_size] = {};
    err_list_t warning_list = {0, nullptr};
};

void free_warning_list(msg_error* error);

// Results of the walk.
inline constexpr int walk_accepted = -1;
inline constexpr int walk_warned = -2;  // see warning_list; the caller refuses the message
inline constexpr int walk_failed = -3;  // see code and subst

// Trace levels are ASCII digits, '0' is off. What the engine writes at which level:
inline constexpr char trace_level_dump = '2';      // the message, its passwords hidden
inline constexpr char trace_level_elements = '4';  // a line for each field

// trcWrite, trcDump  write trace: one line; a title with a dump
// logWrite           logs a message number with its inserts
// errorAction        called when checks have failed: writes a diagnostic file and puts its name into the
//                    buffer, an empty one when there is no file
// trcflag            the trace level, read at every decision; may be null (off)
// table              null: the catalogue
struct msgconv_ctx_t {
    void (*trcWrite)(const char* text) = nullptr;
    void (*trcDump)(const char* title, const void* address, size_t length) = nullptr;
    void (*logWrite)(int number, const char* insert) = nullptr;
    void (*errorAction)(char* buffer, size_t size) = nullptr;
    const std::atomic<char>* trcflag = nullptr;
    const MSGTAB* table = nullptr;
};

// Where the content field of a message stands, both pointers into the message.
struct content_info_t {
    const unsigned char* size_field;
    const unsigned char* content_field;
};

// Bits of the argument `internal` of a walk.
inline constexpr int walk_swap_copy = 2;     // swap in a private copy and leave the message as it is
inline constexpr int walk_text_copy = 4;     // evaluate and trace texts from the private copy
inline constexpr int walk_find_content = 8;  // note where the content field stands

// What a walk has met, for a caller that wants the values (see walk_message). `path_level` is 0 for fields of
// the message itself.
enum walk_event { walk_value, walk_struct_begin, walk_struct_end, walk_table_begin, walk_table_end };
struct walk_field {
    walk_event event;
    const msg_el* element;
    const unsigned char* data;  // walk_value: the field's bytes, in wire order as far as the walk left them
    size_t size;                // walk_value: bytes of the field, all inside the message
    int repetition;             // number of this repetition, from 0
    bool repeated;              // the field is one of an array or table
    bool big_endian;            // integers of `data` stand in this order
};
struct walk_visitor {
    void (*visit)(void* context, const walk_field& field);
    void* context;
};

// Fills `ctx`, keeps it for messages of the check compiler, and compiles all checks when `buildCheckStream`
// is not 0 (logging 2000213, 2000214 and 2000215). Call once per process, before other threads convert.
// `flag` is the address of the trace level. Always 0.
int msgconv_open(msgconv_ctx_t* ctx, const std::atomic<char>* flag, void (*tw)(const char*),
                 void (*td)(const char*, const void*, size_t), void (*lw)(int, const char*),
                 void (*ea)(char*, size_t), int buildCheckStream);

// Frees the check stream; the checks are off afterwards. May be called again.
void msgconv_close();

// Walks `msg` (`msgs` bytes, beginning with the head) on its way out or in. `error` is cleared first and must
// have no warnings that anybody still needs. `internal` is 0 or walk_ bits, `table` (code conversion) is not
// used here. Result: walk_accepted, walk_warned, walk_failed. A message of length 0 and one that begins with
// "<" pass unconverted.
int ToLAN(void* msg, size_t msgs, const msgconv_ctx_t* ctx, int internal, const void* table,
          msg_error* error);
int ToHOST(void* msg, size_t msgs, const msgconv_ctx_t* ctx, int internal, const void* table,
           msg_error* error);

// The same as ToLAN (to_lan true) or ToHOST, telling `visitor` each field that was accepted, in the order of
// the walk.
int walk_message(void* msg, size_t msgs, bool to_lan, const msgconv_ctx_t* ctx, const walk_visitor* visitor,
                 msg_error* error);

// For errorAction: dumps the message whose checks have failed through trcDump, with a line for each field.
// Nothing when it is called from elsewhere.
void msgconv_dump_failed_message();

// What the channel layer calls: as ToHOST and ToLAN, with errors and warnings logged through ctx->logWrite
// and the warnings freed. A "MELD    " on its way in passes untouched: its readers test its size. 0 accepted,
// -1 refused.
int msgconv_ToHost(void* msg, size_t msgs, const msgconv_ctx_t* ctx);
int msgconv_ToLan(void* msg, size_t msgs, const msgconv_ctx_t* ctx);

// Finds the message's content field. 0: `info` filled; 1: the message has none; -1: not a message of the
// catalogue.
int msgconv_getContentField(void* msg, size_t msgs, const msgconv_ctx_t* ctx, content_info_t* info,
                            msg_error* error);

// 1 when the named entry, or a record inside it, has a content field, else 0.
int has_content_field(const msgconv_ctx_t* ctx, const char* name, size_t name_len);

// Display name of a field type, "Unknown" when there is none.
const char* type2string(int type);
