// What the parts of the destination share. `item` is the content of a control item, a partner's.
#pragma once

#include <string_view>

#include "transfer/compress/compress.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/folders.h"

// Results of what a control item asks for, beside 0.
enum dst_result : int {
    DST_FAILED = 1,     // the element has the error
    DST_VIOLATION = -2  // nothing that a partner of ours would send
};

// The callbacks of the decompressor.
int dst_binWrite(void* ftx, const char* buf, int len, int mode, int ctrl, ErrMsg* err);
int dst_textWrite(void* ftx, const char* buf, int len, int mode, int ctrl, ErrMsg* err);

// True when `ctrl` is one of a control item, which is done then. A code in `err` ends the stream.
bool dst_control(ftx_entry* ftx, const char* buf, int len, int ctrl, ErrMsg* err);

// Writes to the open file; -1 after a failure, when the element has the error and the file is closed.
int dst_writeOut(ftx_entry* ftx, const char* data, size_t length, const char* simulation);
// What the text buffer holds. 0 also without any.
int dst_textWriteOut(ftx_entry* ftx);

// ---- Names (destination_names.cpp)

// The element that an item names, which becomes the current one; null without a usable OID.
ftx_elem* dst_element(ftx_entry* ftx, std::string_view item);
// Both names of a file, or of a folder, by order and item. 0 or -1 with `err`.
int dst_file_names(const ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err);
int dst_folder_names(const ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err);
// Bytes of a destination, in front of what wildcards made of it, that are the order's own.
size_t dst_fixed_length(const ftx_entry* ftx, std::string_view name);

// ---- Open and close (destination_open.cpp, destination_close.cpp)

int dst_openFile(ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err);
int dst_createDir(ftx_entry* ftx, ftx_elem* elem, std::string_view item, qx7_error* err);
// The item completes the file, or tells why the sender could not read it.
void dst_closeFile(ftx_entry* ftx, std::string_view item);
// The letter of the order itself, which a repeat does not change.
char dst_ordered_overwrite(const ftx_entry* ftx);
