// Records between the threads and processes of one agent. Host order, unconverted: the partner is this same
// program. A pointer in a record is valid only inside the process, such records never leave it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "channels/ccm.h"

struct ipcmsg_header_t {
    char msgtype[16];  // name, zero padded
};
static_assert(sizeof(ipcmsg_header_t) == 16);

// PING, PINGQ
struct ipcmsg_ping_t {
    ipcmsg_header_t header;
    int64_t send_time;
};
static_assert(sizeof(ipcmsg_ping_t) == 24);

// LOGGING
struct ipcmsg_logging_t {
    ipcmsg_header_t header;
    int32_t msgnr;
    char msginsert[1024];
};
static_assert(sizeof(ipcmsg_logging_t) == 1044 && offsetof(ipcmsg_logging_t, msginsert) == 20);

// SIGCHLD
struct ipcmsg_sigchld_t {
    ipcmsg_header_t header;
    int32_t pid;
    int32_t ret;
    int32_t status;
    int32_t filler;
    int64_t send_time;
};
static_assert(sizeof(ipcmsg_sigchld_t) == 40 && offsetof(ipcmsg_sigchld_t, send_time) == 32);

// CHANNEL_CLOSE
struct ipcmsg_channel_close_t {
    ipcmsg_header_t header;
    ccm_channel_image_t ccmch;
    ccm_connect_user_context_t cuc;
};
static_assert(sizeof(ipcmsg_channel_close_t) == 2008 && offsetof(ipcmsg_channel_close_t, cuc) == 1536);

// CHANNEL_ACCEPT, GSSHS_OK
struct ipcmsg_channel_id_t {
    ipcmsg_header_t header;
    int32_t ID;
};
static_assert(sizeof(ipcmsg_channel_id_t) == 20);

// NATMELD: `len` bytes follow: a MELD message, and a meld_ends.
struct ipcmsg_natmeld_t {
    ipcmsg_header_t header;
    int32_t replyID;
    int32_t len;
};
// Both ends of the connection that brought a MELD, as the listener names them.
struct meld_ends {
    sockaddr_storage own;
    sockaddr_storage peer;
};
static_assert(sizeof(meld_ends) == 256);
static_assert(sizeof(ipcmsg_natmeld_t) == 24);

// NATQUITT: `len` bytes of a QUITT message follow.
struct ipcmsg_natquitt_t {
    ipcmsg_header_t header;
    int32_t dstID;
    int32_t len;
};
static_assert(sizeof(ipcmsg_natquitt_t) == 24);

// GSSHS_REMOTE: `len` bytes of a complete frame follow.
struct ipcmsg_gsshs_remote_t {
    ipcmsg_header_t header;
    int32_t agentID;
    int32_t listenerID;
    int32_t len;
};
static_assert(sizeof(ipcmsg_gsshs_remote_t) == 28);

// ROUTENAT: `len` bytes of an application message in host form follow.
struct ipcmsg_routenat_t {
    ipcmsg_header_t header;
    ccm_addr_t addr;
    int32_t len;
};
static_assert(sizeof(ipcmsg_routenat_t) == 308 && offsetof(ipcmsg_routenat_t, len) == 304);

// PASSFD; the descriptor travels in the control data.
struct ipcmsg_passfd_t {
    ipcmsg_header_t header;
    int32_t fd;
    int32_t agentID;
    int32_t listenerID;
    char name[128];
};
static_assert(sizeof(ipcmsg_passfd_t) == 156 && offsetof(ipcmsg_passfd_t, name) == 28);

// PASSFD_QUITT
struct ipcmsg_passfd_quitt_t {
    ipcmsg_header_t header;
    int32_t fd;
    int32_t agentID;
    int32_t listenerID;
};
static_assert(sizeof(ipcmsg_passfd_quitt_t) == 28);

// REMOTE_CLOSE
struct ipcmsg_remote_close_t {
    ipcmsg_header_t header;
    int32_t ID;
    int32_t msgnr;
    char msginsert[1024];
};
static_assert(sizeof(ipcmsg_remote_close_t) == 1048);

// FTX_FINISH
struct ipcmsg_ftx_finish_t {
    ipcmsg_header_t header;
    int32_t ah_idnr;
    int32_t pid;
};
static_assert(sizeof(ipcmsg_ftx_finish_t) == 24);

// TRACE_FLUSH
struct ipcmsg_trace_flush_t {
    ipcmsg_header_t header;
    char filename[256];
};
static_assert(sizeof(ipcmsg_trace_flush_t) == 272);

// TIMER_FIRE
using ipcmsg_timer_function = int (*)(void* cb_context, const char* name, const char* minor);
struct ipcmsg_timer_fire_t {
    ipcmsg_header_t header;
    ipcmsg_timer_function cb_function;
    void* cb_context;
    char name[64];
    char minor[64];
};
static_assert(sizeof(ipcmsg_timer_fire_t) == 160 && offsetof(ipcmsg_timer_fire_t, name) == 32);

// Names.
inline constexpr char ipc_ping[16] = "PING";
inline constexpr char ipc_pingq[16] = "PINGQ";
inline constexpr char ipc_logging[16] = "LOGGING";
inline constexpr char ipc_sigchld[16] = "SIGCHLD";
inline constexpr char ipc_channel_close[16] = "CHANNEL_CLOSE";
inline constexpr char ipc_channel_accept[16] = "CHANNEL_ACCEPT";
inline constexpr char ipc_gsshs_ok[16] = "GSSHS_OK";
inline constexpr char ipc_natmeld[16] = "NATMELD";
inline constexpr char ipc_natquitt[16] = "NATQUITT";
inline constexpr char ipc_jobchk[16] = "JOBCHK";
inline constexpr char ipc_ft_chk[16] = "FT_CHK";
inline constexpr char ipc_fhchk[16] = "FHCHK";
inline constexpr char ipc_cmd_chk[16] = "CMD_CHK";
inline constexpr char ipc_ioschk[16] = "IOSCHK";
inline constexpr char ipc_ftxchk[16] = "FTXCHK";
inline constexpr char ipc_gsshs_remote[16] = "GSSHS_REMOTE";
inline constexpr char ipc_exdata_remote[16] = "EXDATA_REMOTE";
inline constexpr char ipc_routenat[16] = "ROUTENAT";
inline constexpr char ipc_passfd[16] = "PASSFD";
inline constexpr char ipc_passfd_quitt[16] = "PASSFD_QUITT";
inline constexpr char ipc_remote_close[16] = "REMOTE_CLOSE";
inline constexpr char ipc_listener_ok[16] = "LISTENER_OK";
inline constexpr char ipc_ftx_finish[16] = "FTX_FINISH";
inline constexpr char ipc_trace_flush[16] = "TRACE_FLUSH";
inline constexpr char ipc_shutdown[16] = "SHUTDOWN";
inline constexpr char ipc_timer_fire[16] = "TIMER_FIRE";
