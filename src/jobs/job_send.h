// The ways in which the job processor's messages leave. Main thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "channels/messages.h"
#include "messages/head.h"

struct EX_PCX;
struct JP_AREA;
struct qx7_error;

// Does a connection to the server stand, so that what is sent now will not be dropped?
bool job_server_reachable(EX_PCX* pcx);

// `body` as the answer to a message that is at hand. All here: 0, or -1 with the channel layer's failure
// logged.
int job_send_reply(EX_PCX* pcx, const ccm_msg_t* request, const std::vector<unsigned char>& body);
// `body` as the answer to a message that is gone. Its channel may be gone too, so the answer goes by name:
// to the kept source when that begins "*CP", else to "*SERVER".
int job_send_kept(EX_PCX* pcx, const ccm_addr_t& kept, const std::vector<unsigned char>& body);
// The same, and when no server is there it goes behind the next logon: for what nobody asks for again.
int job_send_kept_surely(EX_PCX* pcx, const ccm_addr_t& kept, const std::vector<unsigned char>& body);
// `body` to "*SERVER", for the module that activated or asked; no handle.
int job_send_server(EX_PCX* pcx, const ccm_addr_t* kept, const std::vector<unsigned char>& body);

// QUITT for `msg`: "OK" for number 0, else "NK"; at most 256 characters of insert. 0 or -1.
int create_and_send_quitt_message(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert);
// The same with the status forced to "OK".
int job_send_quitt_ok(EX_PCX* pcx, ccm_msg_t* msg, int msgnr, const char* insert);
// QUITT to the activation of `job` from its kept header and address.
int create_and_send_aktj_quitt_message(EX_PCX* pcx, JP_AREA* job, int msgnr, const char* insert,
                                       const void* extra = nullptr, size_t extraLen = 0);

// A zeroed body of `size` bytes with its head.
std::vector<unsigned char> job_new_body(size_t size, std::string_view type, int version,
                                        const QX_HEADM& like);
// "%d" left-justified in a blank-padded field of 10.
void job_put_pid(char (&field)[10], uint32_t pid);
// A copy of the address of a received message, made with new.
ccm_addr_t* job_keep_address(const ccm_msg_t* msg);
