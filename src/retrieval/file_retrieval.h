// File retrieval: a person at a screen reads a file of this host, a text by lines from its beginning or its
// end, or a file as bytes, one block for each request with the same key. Main thread.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "base/descriptor.h"
#include "channels/messages.h"
#include "retrieval/file_retrieval_request.h"

struct EX_PCX;

inline constexpr char getfile_module[] = "GETFILE";
inline constexpr int file_request_time_limit = 30;               // seconds of silence
inline constexpr int file_requests_max = 100;                    // at once
inline constexpr int64_t file_request_bytes_max = 64LL << 20;    // of text, in one request
inline constexpr int64_t file_requests_bytes_max = 256LL << 20;  // of text in all that was not sent yet

enum file_request_state : char { FILE_REQUEST_NEW = 'N', FILE_REQUEST_CONTINUED = 'O' };
enum file_request_action : char { FILE_ACTION_LOGIN_ASKED = 'S', FILE_ACTION_XML = 'X' };

// A piece of the text that is to be sent; `rb_dist` bytes of it went out.
struct RCV_RB {
    size_t rb_dist = 0;
    std::string rb_data;
};

struct GETF_PL {
    char gf_kz[16];  // "%%GETFILE     %%"
    char gf_getfPl = FILE_REQUEST_NEW;
    char gf_lastAct = 0;      // file_request_action
    char gf_text_coding = 0;  // text_code
    time_t gf_timeStamp = 0;  // of the last activity, monotonic

    // the file
    qx_descriptor gf_fd;  // bytes only, until the last one was read: a text is read whole when it is opened
    int64_t gf_fileSize = 0;
    int64_t gf_sendSize = 0;
    int64_t gf_restSendSize = 0;
    int64_t gf_startPos = 0;
    int64_t gf_room = file_request_bytes_max;  // bytes that may be read of a text
    std::deque<RCV_RB> gf_firstRb;
    int32_t gf_records = 0;
    size_t gf_blocksize = 0;
    size_t gf_maxRecSize = 0;
    std::string gf_pLastRec;    // read, and not sent yet
    std::string gf_pCdataBuff;  // a head and one block

    // the request
    std::string gf_addr, gf_name, gf_request, gf_session, gf_reqName, gf_reqSrc;
    uint32_t gf_uidnr = 0;
    std::string gf_sLoginInfo;  // the user whose rights count
    std::string gf_sFileName;
    std::string gf_loginobject;
    ccm_addr_t gf_b;  // the asker's
    RCV_CD gf_cData{};
};

// Without requests. 0.
int GET_fileOpen(EX_PCX* pcx);
// Frees all requests. 0.
int GET_fileClose(EX_PCX* pcx);

// Handlers. 0; -1 when nothing could be done with the message or an answer tells of a failure.
int process_getfile_XML(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_getfile_resdata(EX_PCX* pcx, ccm_msg_t* msg, int row);
int process_getfile_quitt(EX_PCX* pcx, ccm_msg_t* msg, int row);

// Asks the server for the login object. 0 or -1.
int getfile_sendResGet(EX_PCX* pcx, GETF_PL* request, qx7_error* error);
// The next block. 0, or -1 with `error`, which nobody was told yet.
int getfile_sendXmlData(EX_PCX* pcx, GETF_PL* request, qx7_error* error);
// The failure to `to`; nothing without a number and without -1 in qx_errno. 0 or -1.
int getfile_sendXmlError(EX_PCX* pcx, const ccm_addr_t& to, const std::string& key, const qx7_error& error);

// A new request at the head of the list, or null with `error`, also when file_requests_max are under way.
GETF_PL* create_fileReqEntry(EX_PCX* pcx, const ccm_msg_t* msg, qx7_error* error);
GETF_PL* get_fileReqKey(EX_PCX* pcx, const std::string& key);
// The newest request that waits for this login object of the user.
GETF_PL* get_fileReqAhidnr(EX_PCX* pcx, uint32_t uidnr, const std::string& loginobject);
void free_fileReqEntry(EX_PCX* pcx, GETF_PL* request);

int get_fileReqCount(EX_PCX* pcx);
// Seconds until the next request is forgotten: 1 when one is due, 0 without requests.
int get_fileReqTimeout(EX_PCX* pcx);
// Forgets the requests whose time is over; their number.
int check_fileReqTimeout(EX_PCX* pcx);
// Back to 30 seconds.
void set_fileReqTimeout(EX_PCX* pcx);

// ---- reading (file_retrieval_read.cpp)

// Opens the file as gf_sLoginInfo and, for a text, reads what is wanted, at most gf_room bytes. Only regular
// files. 0, or -1 with 2000258 or the failure of the change of identity.
int create_sendRecBuf(GETF_PL* request, qx7_error* error);
// The encoding that the file's first bytes tell. 0, or -1 with errno.
int set_textCoding(GETF_PL* request, int fd);
// The first, or the last, gf_records lines into the pieces. 0, or -1 with errno.
int create_beginRecBuf(GETF_PL* request, int fd);
int create_endRecBuf(GETF_PL* request, int fd);

void alloc_currReadBuffer(GETF_PL* request);
// The next line into gf_pLastRec: 1, 0 at the end, -1 when it is longer than gf_maxRecSize.
int get_nextRecord(GETF_PL* request);
// The next block with its head into gf_pCdataBuff. 0, or -1 with 2000258.
int read_recordsToBuff(GETF_PL* request, qx7_error* error);
int read_fileToBuff(GETF_PL* request, qx7_error* error);
