// What the two ways of reading a source share. The read callbacks of the compressor return the length of an
// item, whose control type is `ctrl`, or -1 at the end of the stream.
#pragma once

#include "transfer/compress/compress.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/entry.h"

struct src_item {
    char* buf;
    int size;
    int* ctrl;
};

// The callbacks.
int src_binRead(void* ftx, char* buf, int size, int mode, int* rest, int* ctrl, ErrMsg* err);
int src_textRead(void* ftx, char* buf, int size, int mode, int* rest, int* ctrl, ErrMsg* err);

// ---- Between files (source_open.cpp)

// Opens the next file and gives its file_open; or make_dir, or the sync behind the last; -1 behind that, and with
// `err` when it was interrupted.
int src_openNextFile(ftx_entry* ftx, const src_item& item, ErrMsg* err);
// Opens the folder that holds a source, whose name in there is `last`. What lies behind the order's own folder
// is reached without links. 0 or -1 with errno.
int src_enterFolder(ftx_entry* ftx, const std::string& name, std::string* last);
// Opens one, and fills what tells the receiver of it. 0 or -1 with `err`.
int src_openFile(ftx_entry* ftx, ftx_elem* elem, ControlStream* cbs, qx7_error* err);
// What a file_open tells of each file.
void src_describe(const ftx_elem* elem, ControlStream* cbs);
// The file has ended, or cannot be read: its file_close.
int src_fileEof(ftx_entry* ftx, const src_item& item);
int src_fileError(ftx_entry* ftx, int error_number, const src_item& item);
// The stream cannot go on, since the transfer ends here. -1 with `err`.
int src_breakOff(const ftx_entry* ftx, ErrMsg* err);
// Gives a control stream as item of that type.
int src_give(const ControlStream& cbs, int control, const src_item& item);

// ---- Going on (source_resume.cpp)

// From where the file that was just opened is sent: on from where an earlier run has come, which the item tells,
// or from its beginning. `size_then` is its size in the earlier run. 0 or -1 with errno.
int src_setPosition(ftx_entry* ftx, ftx_elem* elem, int64_t size_then, ControlStream* cbs);
// For a file with ftx->prefix_unproven: the next item that comes before its data, or 0 when data come next; -1 with
// `err` when it was interrupted.
int src_provePrefix(ftx_entry* ftx, const src_item& item, ErrMsg* err);

// ---- In a file (source.cpp)

// Whether a restart item goes out before the next read: when its time has come, or by chance, when a random
// number modulo the order's `rifreq` is `wanted`.
bool src_restart_due(ftx_entry* ftx, int wanted);
int send_restartInfo(ftx_entry* ftx, const src_item& item);
// Reads up to `size` bytes, 0 at the file's end. `simulation` names the way in the text of a simulated error.
// -1 with errno.
ssize_t src_readFile(ftx_entry* ftx, void* to, size_t size, const char* simulation);
