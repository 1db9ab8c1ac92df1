// The search for a communication process of the server, the logon, and the life of the one connection. Main
// thread.
#pragma once

#include <cstddef>

struct EX_PCX;
struct ccm_msg_t;
struct qx7_error;

inline constexpr int cp_connection_max = 64;
inline constexpr int cp_ranking_now = 1;
inline constexpr int cp_ranking_refused = 9999;
inline constexpr int cp_ranking_failed = 99999;

enum cp_connection_flag {
    CPC_FLAG_CONNECTING = 1,  // a connect was started; stays set
    CPC_FLAG_FAILED = 2,
    CPC_FLAG_ANSWERED = 4
};

// One candidate. The array stands in `EX_PCX.cp_connections`; sorting moves the entries, so no pointer to one
// lives across a call that may sort or add.
struct cp_connection_t {
    char eyec[8];  // "%CPCONN%"
    int flag;
    char name[64];  // "*PORT(%d)"
    char addr[64];
    int port;
    int ranking;
};
static_assert(sizeof(cp_connection_t) == 148 && sizeof(cp_connection_t) * cp_connection_max == 9472);

// Builds the list of candidates and starts the search. Result: the number of candidates, -1 without memory.
int server_connection_start(EX_PCX* pcx, qx7_error* error);
// Adds a candidate; -1 when the list is full or host or port are not acceptable.
int cp_connection_add(EX_PCX* pcx, const char* host, int port, int ranking);
cp_connection_t* cp_connection_get_by_port(EX_PCX* pcx, int port);
// qsort order by `ranking`.
int cp_connection_sortbyRanking(const void* left, const void* right);
int cp_connection_connect_next_based_ranking(EX_PCX* pcx);
// 0 not decided, 1 all failed, 2 chosen or no search.
int cp_connection_check_best(EX_PCX* pcx);
// The event that a candidate's channel is gone.
void cp_connection_closed(EX_PCX* pcx, int channel_id, int port);
// Ends any search; candidates other than `keep_channel_id` are closed.
void cp_search_end(EX_PCX* pcx, int keep_channel_id);
// Port of `TCP/IP/cp`, 0 when absent.
int get_main_cp_port(EX_PCX* pcx);

// One element "host:port" of a CP list. 0, or -1 when it does not count.
int cp_list_element(const char* text, size_t length, char host[64], int* port);

int process_server_data(EX_PCX* pcx, ccm_msg_t* msg);
int process_cp_server_list(EX_PCX* pcx, ccm_msg_t* msg);
int process_executor_data(EX_PCX* pcx, ccm_msg_t* msg);
int process_executor_data_listener(EX_PCX* pcx, ccm_msg_t* msg);

int send_visitcard(EX_PCX* pcx, int channel_id);
int send_exstart(EX_PCX* pcx);
int process_exstartq2(EX_PCX* pcx, ccm_msg_t* msg, int row);
int send_srvquery(EX_PCX* pcx);
int send_exstop(EX_PCX* pcx);

// Called when the handshake on the server channel is over.
int server_connection_established(EX_PCX* pcx, int channel_id);
// Called when the server channel is gone.
void server_connection_lost(EX_PCX* pcx);
// Keep-alive, only while a server channel stands.
int maintenance_server_connection(EX_PCX* pcx);
