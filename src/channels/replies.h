// QUITT, the answer to a message: number, insert, status and optional data. Main thread.
#pragma once

#include "channels/messages.h"
#include "messages/build.h"
#include "messages/records_server.h"

struct quitt_content {
    std::string_view answered_type;  // of the message, 8 characters at most
    uint16_t client;
    uint32_t user;
    int msgnr;
    std::string_view insert;  // cut at 256 characters
    std::string_view status;  // "OK" or "NK"
};

message_builder<MSG_TYPE_QUITT> make_quitt(const quitt_content& content);

// Sends an empty body: the answer of an unknown module. 0, or -1 without memory.
int send_quitt(ccm_msg_t* request, int msgnr, const char* insert);
// Answers `request`. `status` (at most 2 characters; null: "NK") "OK" for number 0 by convention of the
// callers. `data` (null allowed) stands behind the record. 0, or -1 when nothing was sent.
int send_quitt_reply(EX_PCX* pcx, ccm_msg_t* request, int msgnr, const char* insert, const char* status,
                     const void* data, int data_len);
// The same for a partner known only by its parts: channel ID (0: "*SERVER"), modules, handle, the 8-byte type
// of the answered message, client, user.
int send_quitt_extended(EX_PCX* pcx, int dst_ID, const char* dst_name, const char* src_name, int dst_acv,
                        const char* answered_type, int client, int user, int msgnr, const char* insert,
                        const char* status, const void* data, int data_len);
