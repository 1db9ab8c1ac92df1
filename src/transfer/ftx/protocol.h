// What one side of a transfer tells the other, and the server. Main thread. All send to where the entry
// says and return 0, or -1 when nothing went out.
#pragma once

#include <string_view>

#include "channels/messages.h"

struct ftx_elem;
struct ftx_entry;

// ---- To the partner (send.cpp)

int ftx_send_ftxsend2sender(EX_PCX* pcx, struct __ftx_reverse_connect_savearea* area);
int ftx_send_ftxrecv(EX_PCX* pcx, ftx_entry* ftx);
// `ftx` may be null: an order that made no entry; the answer goes to who sent `msg`.
int ftx_send_ftxrecvq(EX_PCX* pcx, const ccm_msg_t* msg, ftx_entry* ftx, int msl_no, std::string_view text);
// One block; the length that went out, 0 at the end of the stream, -1 after an error.
int ftx_send_ftxdata(EX_PCX* pcx, ftx_entry* ftx);
int ftx_send_ftxquitt(EX_PCX* pcx, ftx_entry* ftx);
int ftx_send_ftxend(EX_PCX* pcx, ftx_entry* ftx);
int ftx_send_ftxendq(EX_PCX* pcx, ftx_entry* ftx);

// ---- To the server (status.cpp, report.cpp)

int ftx_send_ftxsendq(EX_PCX* pcx, ftx_entry* ftx, int msl_no, std::string_view text);
int ftx_send_ftxsta(EX_PCX* pcx, ftx_entry* ftx);
// On the sender, for work that keeps the loop waiting: FTXSTA when its time has come.
void ftx_tell_status_when_due(ftx_entry* ftx);
// Only when the server has asked. mode 0: only when the report fills a block; 1: what there is.
int ftx_send_ftxwrite(EX_PCX* pcx, ftx_entry* ftx, int mode);

// ---- The sender's window (window.cpp)

// Sends blocks until the window is full or the stream has ended.
void ftx_transfer_data(EX_PCX* pcx, ftx_entry* ftx);
// The transfer has ended with an error that stands in the entry: status 'E', progress 99, status and report
// to the server.
void ftx_end_with_error(EX_PCX* pcx, ftx_entry* ftx);

// ---- The report (report.cpp)

// A line of the report, kept and stored; receivers keep none. The text is cut at 1024 bytes.
void putFtxLog(ftx_entry* ftx, int number, const char* format, ...) __attribute__((format(printf, 3, 4)));
void freeFtxLog(ftx_entry* ftx);
// The lines of an element that has arrived, and of one that has not: without its message, which follows.
void ftx_report_arrived(ftx_entry* ftx, const ftx_elem* elem);
void ftx_report_not_arrived(ftx_entry* ftx, const ftx_elem* elem);
void ftx_periodical_report_check(EX_PCX* pcx);
void ftx_periodical_status_check(EX_PCX* pcx);
