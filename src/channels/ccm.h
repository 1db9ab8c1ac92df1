// The channel manager's records: one context for each process, its channels, and the addresses of messages.
//
// Threads. The main thread runs all logic; the network thread does the socket I/O and is the only one that
// unlinks or destroys a channel. A message that nothing stands in front of is written by its sender, who
// holds the channel's pen meanwhile. `ccm_channel_getby*` return with `channel_lock` held: between them and
// `ccm_channel_unlock` a caller only copies or sets fields. Logging, allocating, sending, connecting, another
// lookup, the security mechanism, files and names come after the unlock, on copies; this is tested, and a
// violation aborts. Lock order: `channel_lock`, the context's `queue_lock`, a channel's `queue_lock`; none is
// held across a system call, and nobody takes a mutex while holding one.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include "base/descriptor.h"
#include "base/error.h"
#include "security/mechanism.h"

struct EX_PCX;
struct ccm_channel_t;
struct ccm_msg_t;

enum ccm_context_flag : int {
    CCM_FLAG_IPV6 = 1,                // the host can open IPv6 sockets
    CCM_FLAG_CHANNELS_TO_DELETE = 2,  // the network thread looks for channels to destroy
};

enum ccm_channel_type : int {
    CH_TYPE_SILENT = -1,       // set before a delete that shall post no CHANNEL_CLOSE
    CH_TYPE_ACCEPTED = 0,      // accepted socket whose partner isn't known yet
    CH_TYPE_LISTEN = 1,        // listening socket, named "*LISTEN"
    CH_TYPE_SERVER = 3,        // the authenticated connection to the server
    CH_TYPE_AGENT = 4,         // connection to another agent
    CH_TYPE_CP_CANDIDATE = 6,  // outgoing connection to a server process that is being ranked
    CH_TYPE_IPC = 7,           // socket pair between agent and listener or worker
    CH_TYPE_PLACEHOLDER = 255  // no socket, holds only a security context
};

enum ccm_channel_flag : int {
    CH_FLAG_DELETED = 1,
    CH_FLAG_SEALED = 2,              // traffic is enciphered
    CH_FLAG_CONNECTING = 8,          // `connect_timeout` applies
    CH_FLAG_NO_READ = 16,            // the network thread doesn't read this socket
    CH_FLAG_REQUEST_SENT = 32,       // the handshake's first token is out
    CH_FLAG_BIND_KNOWN = 64,         // `bind_addr` was read
    CH_FLAG_DELETE_WHEN_SENT = 128,  // deleted by the network thread once its send queue is empty
    CH_FLAG_SPOKE = 256,             // a whole frame has come
};

// Names with a meaning.
inline constexpr char ccm_name_server[] = "*SERVER";
inline constexpr char ccm_name_ipc_agent[] = "*IPC(AGENT)";
inline constexpr char ccm_name_ipc_listener[] = "*IPC(LISTENER)";
inline constexpr char ccm_name_ipc_worker_prefix[] = "*IPC(FTX,";
inline constexpr char ccm_name_listen[] = "*LISTEN";

inline constexpr int ccm_linger_seconds = 60;
inline constexpr int ccm_descriptor_limit = 65536;  // descriptors that the network thread can watch
inline constexpr int ccm_unhandled_limit = 64;      // unhandled messages from which a channel isn't read
// Seconds after which a caller who said nothing may have to go.
inline constexpr int ccm_accepted_silence = 3;
inline constexpr int ccm_accepted_seconds = 60;  // life of an accepted socket without handshake or MELD
inline constexpr int ccm_adopted_seconds = 300;  // until the first sealed message of an adopted socket

// Where a message goes and comes from. `addr` members name a process (a channel name), `name` a module, `acv`
// is a client-side handle passed through unchanged, `ID` a channel of this process.
struct ccm_addr_t {
    char eyec[8];  // "#CCMADDR"
    int type;
    int dst_ID;
    char dst_addr[64];
    char dst_name[64];
    int dst_acv;
    int src_ID;
    char src_addr[64];
    char src_name[64];
    int src_acv;
    int src_type;  // type of the channel that it came on
};
static_assert(sizeof(ccm_addr_t) == 288);

// The name that the calls on channels give the error record.
using ccm_error_t = qx7_error;

// What a caller attaches to a connect and finds again at close or success. Made by ccm_user_context_new; it
// belongs to the channel once ccm_connect has returned an ID, and to the caller after -1.
struct ccm_connect_user_context_t {
    char key[32];
    char name[128];
    int client;
    int user;
    ccm_addr_t ccmaddr;
    gss_cred_id_t pDelegCred;  // owned
    int gss_len;
    unsigned char gss_content[4];  // start of `gss_len` bytes that the record is allocated with
};
static_assert(sizeof(ccm_connect_user_context_t) == 472);

// A cleared record with room for `gss_len` bytes from `gss_content` on; null without memory.
ccm_connect_user_context_t* ccm_user_context_new(int gss_len);
unsigned char* ccm_user_context_content(ccm_connect_user_context_t* context);
// Releases the credential, wipes and frees. Null allowed.
void ccm_user_context_free(ccm_connect_user_context_t* context);

// The two ends of an accepted connection, as they were when it was accepted: later its descriptor's number
// may mean another one.
struct ccm_caller {
    sockaddr_storage own;
    sockaddr_storage peer;
    std::array<unsigned char, 16> group;  // ccm_caller_group of `peer`
    bool own_host;                        // the peer is a process of this host
};

struct ccm_channel_queue {
    ccm_channel_t* first;
    ccm_channel_t* last;
};

struct ccm_msg_queue {
    ccm_msg_t* first;
    ccm_msg_t* last;
};

// Received messages of one channel that nobody has freed yet. Shared by the channel and those messages, so
// that it outlives the channel.
struct ccm_backlog_t {
    std::atomic<int> references{1};
    std::atomic<int> unhandled{0};
    std::atomic<int> handshakes{
        0};                      // of them handshake frames: nothing behind one is read until it is handled
    std::atomic<int> paused{0};  // the network thread waits for the number to fall
};

inline constexpr size_t ccm_descriptor_fifo_size = 64;

struct ccm_channel_t {
    char eyec[16];
    ccm_channel_t* nxt;

    // Atomic: written by either thread, by fetch_or and fetch_and where it is a flag word.
    std::atomic<int> type;
    std::atomic<int> flag;
    std::atomic<int> s;                        // socket, -1 without one
    std::atomic<time_t> timestamp_last_io;     // all on the alarm clock
    std::atomic<time_t> timestamp_last_read;   // what the keep-alive looks at
    std::atomic<time_t> timestamp_last_write;  // when the partner last took something; 0 before
    std::atomic<bool> pen;                     // a thread seals or writes

    // Constant once chained.
    int ID;
    time_t accepted_at;  // of an accepted socket, on the alarm clock
    ccm_caller caller;   // likewise
    ccm_backlog_t* backlog;

    // Under the context's channel_lock.
    int remoteID;  // of a placeholder: the listener's ID of the connection; else 0
    int port;
    char name[64];
    char addr[64];                    // peer address as text
    char bind_addr[64];               // own address as text
    char host[128];                   // the name given to connect
    ccm_connect_user_context_t* cuc;  // owned
    int nof_connection;
    time_t connect_timeout_secs;
    time_t connect_timeout;  // on the alarm clock (alarm_now); 0: no limit
    int msgnr;               // why it is deleted, logged at destruction
    char msginsert[qx_insert_size];
    gss_ctx_id_t pATctx;       // owned; set before CH_FLAG_SEALED and constant from then on
    gss_cred_id_t pDelegCred;  // owned

    // Network thread only.
    std::unique_ptr<unsigned char[]> recv_buffer;  // no vector: that would clear what a read overwrites
    size_t recv_size;
    size_t recv_pos;
    std::vector<qx_descriptor>
        fifo;            // came on a socket pair and wait for their PASSFD records, the oldest first
    time_t accept_rest;  // a listening socket isn't looked at before this second
    bool recv_ready;     // complete frames may stand in recv_buffer

    // Under the channel's own queue_lock.
    pthread_spinlock_t queue_lock;
    ccm_msg_queue sendq;
    ccm_msg_queue recvq;
    int nof_sendq;
    int64_t sendq_bytes;  // of the messages in sendq, whole even where a part is written
};

// The copy of a channel that a CHANNEL_CLOSE record carries: plain values, no pointer.
struct ccm_channel_image_t {
    char eyec[16];
    uint64_t nxt;  // 0
    int type;
    int flag;
    int s;
    int ID;
    int remoteID;
    int port;
    char name[64];
    char addr[64];
    char bind_addr[64];
    char host[128];
    uint64_t cuc;  // 1 when the record's user context counts, else 0
    int nof_connection;
    int filler;
    int64_t connect_timeout_secs;
    int64_t connect_timeout;
    int64_t timestamp_last_io;
    int msgnr;
    char msginsert[qx_insert_size];
    int recv_size;  // 0
    int64_t timestamp_last_read;
    uint64_t pointers[9];  // 0
};
static_assert(sizeof(ccm_channel_image_t) == 1520);

struct ccm_context_t {
    char eyec[16];  // "##CCM_CONEXT####"
    EX_PCX* pcx;
    pthread_spinlock_t channel_lock;
    std::atomic<int> flag;
    ccm_channel_queue channelq;      // under channel_lock; only the network thread unlinks
    ccm_channel_queue channel_newq;  // under channel_lock
    int unique_channel_ID;           // under channel_lock

    pthread_spinlock_t queue_lock;  // guards what follows
    ccm_msg_queue sendq;
    ccm_msg_queue recvq;
    ccm_msg_queue msg_freeq;
    ccm_msg_t* msgq_inuse;  // doubly linked
    ccm_msg_queue msgq_2dispatch;
    ccm_msg_queue msgq_kept;  // messages that wait for their channel
    int nof_freemsg;
    int nof_kept;
    int64_t kept_bytes;
    bool in_dispatch;  // the network thread moves a message to its channel just now
    unsigned long unique_msg_ID;

    pthread_t thread;
    pthread_attr_t thread_attr;
    std::atomic<int> thread_started;
    std::atomic<int> loop;              // 1 while the network thread shall run
    std::atomic<unsigned long> cycles;  // of the network thread
    int network_wakeup[2];              // non-blocking pipes, -1 when closed
    int processor_wakeup[2];
    std::atomic<int> network_wake;  // whether the thread waits at its pipe (wakeups.cpp)
    std::atomic<int> processor_wake;
};

// ---- context

// Makes the context, finds out whether the host has IPv6 (2000361 when not), caps the soft limit of
// descriptors at 65536 and registers its locks for forks. -1 with 3301 "CCM_OPEN..." without memory.
int ccm_open(EX_PCX* pcx, ccm_context_t** ccm, ccm_error_t* err);
// Frees all messages and the context. The network thread has ended. Null and a second call are harmless.
int ccm_close(ccm_context_t* ccm, ccm_error_t* err);
// Destroys all channels; the network thread has ended.
void ccm_channel_closeall(ccm_context_t* ccm);

// ---- channels

// A cleared channel with socket -1, its ID and the name "*ID%d", not chained. 3301 "CREATE_CHANNEL...".
int ccm_channel_new_entry(ccm_context_t* ccm, ccm_channel_t** out, ccm_error_t* err);
// Publishes a channel: from here on the network thread may read, write and destroy it, so everything is set
// before. Wakes the network thread.
int ccm_channel_chain(ccm_context_t* ccm, ccm_channel_t* channel);
// Frees a channel that was never chained. `post_close`: posts CHANNEL_CLOSE without user context. The user
// context stays the caller's.
void ccm_channel_discard(ccm_context_t* ccm, ccm_channel_t* channel, bool post_close);

// Not deleted channels only. With a channel `channel_lock` is held; with null it is not.
ccm_channel_t* ccm_channel_getbyID(ccm_context_t* ccm, int id);
// Names that begin with "*IPC" are found on socket pairs only.
ccm_channel_t* ccm_channel_getbyName(ccm_context_t* ccm, const char* name);
// Placeholders only.
ccm_channel_t* ccm_channel_getbyRemoteID(ccm_context_t* ccm, int remote_id);
// Releases `channel_lock` and wakes the network thread when a channel was marked deleted.
void ccm_channel_unlock(ccm_context_t* ccm);
// For walks over both queues: IDs are collected under the lock, the work is done after it.
void ccm_channel_lock(ccm_context_t* ccm);

int ccm_channel_existbyID(ccm_context_t* ccm, int id);
int ccm_channel_existbyName(ccm_context_t* ccm, const char* name);
// Does a connection to the server stand, so that what is sent now will not be dropped?
bool ccm_server_reachable(EX_PCX* pcx);
// Peer address as text (char[64]) of the channel by ID when `id` is above 0, else by name. 0 or -1.
int ccm_channel_get_ip(ccm_context_t* ccm, int id, const char* name, char out[64], ccm_error_t* err);
// A copy of what a handler may want to know. 0, or -1 when there is no such channel. Both take the lock.
int ccm_channel_copy(ccm_context_t* ccm, int id, ccm_channel_image_t* out);
int ccm_channel_copybyName(ccm_context_t* ccm, const char* name, ccm_channel_image_t* out);
// The ends of an accepted connection. 0, or -1 when there is no such channel.
int ccm_channel_caller(ccm_context_t* ccm, int id, ccm_caller* out);
// IDs of the channels of one type, both queues; at most `max` of them. Returns how many.
int ccm_channel_collect(ccm_context_t* ccm, int type, int* ids, int max);

// A mark only; the network thread destroys. May be called with channel_lock held or not.
int ccm_channel_delete(ccm_context_t* ccm, ccm_channel_t* channel);
// Looks up, marks, unlocks. 0, or -1 when there is no such channel.
int ccm_channel_deletebyID(ccm_context_t* ccm, int id);
int ccm_channel_deletebyName(ccm_context_t* ccm, const char* name);
// The same with a reason for the log; the first reason counts. `format` is a constant of the program.
int ccm_channel_failbyID(ccm_context_t* ccm, int id, int msgnr, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// Deletes without a close event.
int ccm_channel_silencebyID(ccm_context_t* ccm, int id);
// Deletes every channel whose CONNECTING time has passed, with 2000064. Main thread, once each pass.
int ccm_channel_check_timeouts(ccm_context_t* ccm, time_t now);

// When the next one passes on the alarm clock; 0 when none runs.
time_t ccm_channel_next_timeout(ccm_context_t* ccm);

// Deletes the channels of one type that have something to send and whose partner has taken nothing since
// `since`. Returns how many.
int ccm_channel_give_up_stuck(ccm_context_t* ccm, int type, time_t since);

// socketpair: both ends non-blocking, named, of type 7, chained. 2000102 "socketpair()|%d(%s)".
int ccm_channel_create_pair(ccm_context_t* ccm, const char* name1, const char* name2, int* id1, int* id2,
                            ccm_error_t* err);

// Counters; deleted channels don't count.
int ccm_get_nof_server_connections(ccm_context_t* ccm);  // types 3 and 6
int ccm_get_nof_connections(ccm_context_t* ccm);         // types 1, 3 and 6
int ccm_get_nof_agent_connections(ccm_context_t* ccm);   // type 4
int ccm_get_nof_channels(ccm_context_t* ccm);            // all but 255
int ccm_get_sendq_count(ccm_context_t* ccm);             // the context's own queue
// Messages that wait on a channel, -1 when there is none of that name.
int ccm_channel_get_sendq_count(ccm_context_t* ccm, const char* name);
// Nothing waits to be distributed or written. Messages kept for a channel to come don't count.
int ccm_is_all_sendq_empty(ccm_context_t* ccm);

// Whether this thread holds a spin lock of the channel manager. What may block or allocate calls the second,
// which aborts when it does.
bool ccm_holds_spin_lock();
void ccm_assert_no_spin_lock();

// A name from the wire that may become a channel's: 1 to 32 bytes, not "*...", only bytes from 33 to 126.
bool ccm_name_acceptable(const char* name, size_t length);
