// The search for the best communication process: candidates, one connect at a time, decision. Main thread.
#pragma once

#include <cstddef>
#include <ctime>

struct EX_PCX;

inline constexpr int cp_connection_max = 64;
inline constexpr int cp_ranking_now = 1;         // take this one at once
inline constexpr int cp_ranking_refused = 9999;  // what a process says that wants no agent
inline constexpr int cp_ranking_failed = 99999;

enum cp_connection_flag {
    CPC_FLAG_CONNECTING = 1,  // a connect was started; stays set
    CPC_FLAG_FAILED = 2,
    CPC_FLAG_ANSWERED = 4
};

// One candidate. Sorting moves the entries of the list, so no pointer to one lives across a call that may
// sort or add.
struct cp_connection_t {
    char eyec[8];  // "%CPCONN%"
    int flag;
    char name[64];  // "*PORT(%d)"
    char addr[64];
    int port;
    int ranking;
};
static_assert(sizeof(cp_connection_t) == 148);

// What the search does to the outside; a test puts its own functions here.
struct cp_search_actions {
    // Starts a connect. The channel's ID, or -1 after a log line.
    int (*connect)(EX_PCX* pcx, const char* host, int port);
    // Makes the candidate the server channel: name, time limit, visit card. -1 when it has just gone.
    int (*choose)(EX_PCX* pcx, int channel_id);
    // Closes all candidates but one (0: all).
    void (*close_candidates)(EX_PCX* pcx, int keep_channel_id);
    // Whether a candidate's channel or an event about one is still there.
    bool (*candidates_alive)(EX_PCX* pcx);
};
extern cp_search_actions cp_search_outside;

// A new, empty list and the search flag. 0.
int cp_search_open(EX_PCX* pcx);
// Adds a candidate; -1 when the list is full or host or port are not acceptable.
int cp_connection_add(EX_PCX* pcx, const char* host, int port, int ranking);
cp_connection_t* cp_connection_get_by_port(EX_PCX* pcx, int port);
// qsort order by `ranking`.
int cp_connection_sortbyRanking(const void* left, const void* right);
int cp_connection_connect_next_based_ranking(EX_PCX* pcx);
// 0 not decided, 1 all failed, 2 chosen or no search.
int cp_connection_check_best(EX_PCX* pcx);

// A candidate has answered with its ranking. -1 when the search does not know this channel.
int cp_search_answered(EX_PCX* pcx, int channel_id, int port, int ranking);
// A candidate is out; the channel may be gone or not.
void cp_search_failed(EX_PCX* pcx, int channel_id);
// The event that a candidate's channel is gone: counts only for the connect that it belongs to.
void cp_connection_closed(EX_PCX* pcx, int channel_id, int port);
// Candidates that another one named, with ranks from 2 on.
void cp_search_add_list(EX_PCX* pcx, const char* list, size_t length);
// Frees the list and clears the search flag; candidates other than `keep_channel_id` are closed.
void cp_search_end(EX_PCX* pcx, int keep_channel_id);
// Once in each maintenance pass: goes on when nothing is on its way; a connect whose event got lost counts as
// failed.
void cp_search_check(EX_PCX* pcx);
// When the last search began, on the alarm clock; 0 before the first.
time_t cp_search_last_start();
// A chosen candidate is still in its handshake.
bool cp_handshake_under_way(EX_PCX* pcx);

// A random ranking for a configured candidate, behind all that a server gives.
int cp_random_ranking();
// One element "host:port" of a list. 0, or -1 when it does not count.
int cp_list_element(const char* text, size_t length, char host[64], int* port);
// Calls `use` for each element of a list that counts; only the first 63 are looked at.
void cp_list_each(const char* list, size_t length, void (*use)(void* context, const char* host, int port),
                  void* context);
