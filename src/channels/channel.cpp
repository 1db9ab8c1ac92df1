// Making, finding, marking and counting channels.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/message_numbers.h"
#include "channels/connect.h"
#include "channels/internal.h"

namespace {

void wake_if_deleted(ccm_context_t* ccm) {
    if ((ccm->flag.load() & CCM_FLAG_CHANNELS_TO_DELETE) != 0) {
        ccm_wakeup_network(ccm);
    }
}

// Both queues in order; channel_lock is held. The channel for which `wanted` is true, or null.
template <class Wanted>
ccm_channel_t* find_locked(ccm_context_t* ccm, Wanted wanted) {
    for (ccm_channel_t* head : {ccm->channelq.first, ccm->channel_newq.first}) {
        for (ccm_channel_t* channel = head; channel != nullptr; channel = channel->nxt) {
            if (!channel_has(channel, CH_FLAG_DELETED) && wanted(channel)) {
                return channel;
            }
        }
    }
    return nullptr;
}

template <class Wanted>
ccm_channel_t* find(ccm_context_t* ccm, Wanted wanted) {
    if (ccm == nullptr) {
        return nullptr;
    }
    ccm_assert_no_spin_lock();
    spin_take(&ccm->channel_lock);
    ccm_channel_t* channel = find_locked(ccm, wanted);
    if (channel == nullptr) {
        spin_release(&ccm->channel_lock);
    }
    return channel;
}

template <class Wanted>
int count(ccm_context_t* ccm, Wanted wanted) {
    if (ccm == nullptr) {
        return 0;
    }
    ccm_assert_no_spin_lock();
    int number = 0;
    spin_guard guard(&ccm->channel_lock);
    find_locked(ccm, [&](ccm_channel_t* channel) {
        number += wanted(channel->type.load()) ? 1 : 0;
        return false;
    });
    return number;
}

bool is_ipc_name(std::string_view name) {
    return name.starts_with("*IPC");
}

int copy_found(ccm_context_t* ccm, ccm_channel_t* channel, ccm_channel_image_t* out) {
    if (channel == nullptr) {
        return -1;
    }
    channel_image(channel, out);
    ccm_channel_unlock(ccm);
    return 0;
}

}  // namespace

int ccm_channel_new_entry(ccm_context_t* ccm, ccm_channel_t** out, ccm_error_t* err) {
    ccm_assert_no_spin_lock();
    *out = nullptr;
    auto* backlog = new (std::nothrow) ccm_backlog_t;
    void* memory = calloc(1, sizeof(ccm_channel_t));
    if (memory == nullptr || backlog == nullptr) {
        free(memory);
        delete backlog;
        return qx_error_set(err, -1, ENOMEM, number_no_memory, "%s/%s(%d)", "CREATE_CHANNEL", __FILE__,
                            __LINE__);
    }
    auto* channel = new (memory) ccm_channel_t{};
    memcpy(channel->eyec, "##CCM#CHANNEL###", sizeof channel->eyec);
    channel->s = -1;
    channel->backlog = backlog;
    pthread_spin_init(&channel->queue_lock, PTHREAD_PROCESS_PRIVATE);
    {
        spin_guard guard(&ccm->channel_lock);
        channel->ID = ccm->unique_channel_ID;
        ccm->unique_channel_ID = channel->ID == INT_MAX ? 1 : channel->ID + 1;
    }
    snprintf(channel->name, sizeof channel->name, "*ID%d", channel->ID);
    *out = channel;
    return 0;
}

int ccm_channel_chain(ccm_context_t* ccm, ccm_channel_t* channel) {
    char eyec[32];
    snprintf(eyec, sizeof eyec, "#CCMSOCK%.8d", channel->ID);
    memcpy(channel->eyec, eyec, sizeof channel->eyec);
    {
        spin_guard guard(&ccm->channel_lock);
        queue_append(&ccm->channel_newq, channel);
    }
    ccm_wakeup_network(ccm);
    return 0;
}

void ccm_channel_discard(ccm_context_t* ccm, ccm_channel_t* channel, bool post_close) {
    if (post_close) {
        channel_post_close(ccm, channel, false);
    }
    channel_free(ccm, channel, false);
}

ccm_channel_t* ccm_channel_getbyID(ccm_context_t* ccm, int id) {
    return find(ccm, [id](const ccm_channel_t* channel) { return channel->ID == id; });
}

ccm_channel_t* ccm_channel_getbyName(ccm_context_t* ccm, const char* name) {
    std::string_view wanted = name == nullptr ? "" : name;
    if (wanted.empty()) {
        return nullptr;
    }
    bool pair_only = is_ipc_name(wanted);
    return find(ccm, [&](const ccm_channel_t* channel) {
        return field_text(channel->name) == wanted && (!pair_only || channel->type.load() == CH_TYPE_IPC);
    });
}

ccm_channel_t* ccm_channel_getbyRemoteID(ccm_context_t* ccm, int remote_id) {
    return find(ccm, [remote_id](const ccm_channel_t* channel) {
        return channel->type.load() == CH_TYPE_PLACEHOLDER && channel->remoteID == remote_id;
    });
}

void ccm_channel_unlock(ccm_context_t* ccm) {
    spin_release(&ccm->channel_lock);
    wake_if_deleted(ccm);
}

void ccm_channel_lock(ccm_context_t* ccm) {
    ccm_assert_no_spin_lock();
    spin_take(&ccm->channel_lock);
}

int ccm_channel_existbyID(ccm_context_t* ccm, int id) {
    if (ccm_channel_getbyID(ccm, id) == nullptr) {
        return 0;
    }
    ccm_channel_unlock(ccm);
    return 1;
}

int ccm_channel_existbyName(ccm_context_t* ccm, const char* name) {
    if (ccm_channel_getbyName(ccm, name) == nullptr) {
        return 0;
    }
    ccm_channel_unlock(ccm);
    return 1;
}

bool ccm_server_reachable(EX_PCX* pcx) {
    return pcx->ccm != nullptr && (pcx->pcx_flag.load() & PCX_FLAG_SERVER_CHANNEL) != 0 &&
           ccm_channel_existbyName(pcx->ccm, ccm_name_server) != 0;
}

int ccm_channel_get_ip(ccm_context_t* ccm, int id, const char* name, char out[64], ccm_error_t* err) {
    out[0] = '\0';
    ccm_channel_t* channel = id > 0 ? ccm_channel_getbyID(ccm, id) : ccm_channel_getbyName(ccm, name);
    if (channel == nullptr) {
        return qx_error_set(err, -1, 0, number_no_connection, "%s/%s()|%d", "CHANNEL", "ccm_channel_get_ip",
                            id);
    }
    memcpy(out, channel->addr, sizeof channel->addr);
    ccm_channel_unlock(ccm);
    return 0;
}

int ccm_channel_copy(ccm_context_t* ccm, int id, ccm_channel_image_t* out) {
    return copy_found(ccm, ccm_channel_getbyID(ccm, id), out);
}

int ccm_channel_copybyName(ccm_context_t* ccm, const char* name, ccm_channel_image_t* out) {
    return copy_found(ccm, ccm_channel_getbyName(ccm, name), out);
}

int ccm_channel_caller(ccm_context_t* ccm, int id, ccm_caller* out) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    const bool accepted = channel->type.load() == CH_TYPE_ACCEPTED;
    if (accepted) {
        *out = channel->caller;
    }
    ccm_channel_unlock(ccm);
    return accepted ? 0 : -1;
}

int ccm_channel_collect(ccm_context_t* ccm, int type, int* ids, int max) {
    int number = 0;
    ccm_channel_lock(ccm);
    find_locked(ccm, [&](ccm_channel_t* channel) {
        if (channel->type.load() == type && number < max) {
            ids[number++] = channel->ID;
        }
        return number == max;
    });
    ccm_channel_unlock(ccm);
    return number;
}

int ccm_channel_delete(ccm_context_t* ccm, ccm_channel_t* channel) {
    channel->flag.fetch_or(CH_FLAG_DELETED);
    ccm->flag.fetch_or(CCM_FLAG_CHANNELS_TO_DELETE);
    if (!ccm_holds_spin_lock()) {
        ccm_wakeup_network(ccm);
    }
    return 0;
}

int ccm_channel_deletebyID(ccm_context_t* ccm, int id) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    ccm_channel_delete(ccm, channel);
    ccm_channel_unlock(ccm);
    return 0;
}

int ccm_channel_deletebyName(ccm_context_t* ccm, const char* name) {
    ccm_channel_t* channel = ccm_channel_getbyName(ccm, name);
    if (channel == nullptr) {
        return -1;
    }
    ccm_channel_delete(ccm, channel);
    ccm_channel_unlock(ccm);
    return 0;
}

int ccm_channel_failbyID(ccm_context_t* ccm, int id, int msgnr, const char* format, ...) {
    char insert[qx_insert_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(insert, sizeof insert, format, arguments);
    va_end(arguments);
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    channel_note_reason(channel, msgnr, insert);
    ccm_channel_delete(ccm, channel);
    ccm_channel_unlock(ccm);
    return 0;
}

int ccm_channel_silencebyID(ccm_context_t* ccm, int id) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    channel->type = CH_TYPE_SILENT;
    ccm_channel_delete(ccm, channel);
    ccm_channel_unlock(ccm);
    return 0;
}

int ccm_channel_check_timeouts(ccm_context_t* ccm, time_t now) {
    int late = 0;
    ccm_channel_lock(ccm);
    find_locked(ccm, [&](ccm_channel_t* channel) {
        if (!channel_has(channel, CH_FLAG_CONNECTING) || channel->connect_timeout == 0 ||
            channel->connect_timeout > now) {
            return false;
        }
        char insert[256];
        snprintf(insert, sizeof insert, "%s|%d|", channel->host,
                 static_cast<int>(channel->connect_timeout_secs));
        channel_note_reason(channel, number_no_answer, insert);
        ccm_channel_delete(ccm, channel);
        ++late;
        return false;
    });
    ccm_channel_unlock(ccm);
    return late;
}

time_t ccm_channel_next_timeout(ccm_context_t* ccm) {
    time_t next = 0;
    ccm_channel_lock(ccm);
    find_locked(ccm, [&](ccm_channel_t* channel) {
        const time_t limit = channel->connect_timeout;
        if (channel_has(channel, CH_FLAG_CONNECTING) && limit != 0 && (next == 0 || limit < next)) {
            next = limit;
        }
        return false;
    });
    ccm_channel_unlock(ccm);
    return next;
}

int ccm_channel_give_up_stuck(ccm_context_t* ccm, int type, time_t since) {
    int stuck = 0;
    ccm_channel_lock(ccm);
    find_locked(ccm, [&](ccm_channel_t* channel) {
        if (channel->type.load() == type && channel->timestamp_last_write.load() < since) {
            bool waiting;
            {
                spin_guard guard(&channel->queue_lock);
                waiting = channel->sendq.first != nullptr;
            }
            if (waiting) {
                ccm_channel_delete(ccm, channel);
                ++stuck;
            }
        }
        return false;
    });
    ccm_channel_unlock(ccm);
    return stuck;
}

int ccm_channel_create_pair(ccm_context_t* ccm, const char* name1, const char* name2, int* id1, int* id2,
                            ccm_error_t* err) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) {
        return qx_error_set(err, -1, errno, number_call_failed, "socketpair()|%d(%s)|", errno,
                            strerror(errno));
    }
    if (descriptors_in_range(pair) < 0) {
        return qx_error_set(err, -1, EMFILE, number_call_failed, "socketpair()|%d(%s)|", EMFILE,
                            strerror(EMFILE));
    }
    qx_descriptor ends[2] = {qx_descriptor(pair[0]), qx_descriptor(pair[1])};
    ccm_channel_t* channels[2] = {nullptr, nullptr};
    for (ccm_channel_t*& channel : channels) {
        if (ccm_channel_new_entry(ccm, &channel, err) != 0) {
            if (channels[0] != nullptr) {
                ccm_channel_discard(ccm, channels[0], false);
            }
            return -1;
        }
    }
    const char* names[2] = {name1, name2};
    int* ids[2] = {id1, id2};
    for (int i = 0; i < 2; ++i) {
        channels[i]->s = ends[i].release();
        channels[i]->type = CH_TYPE_IPC;
        copy_text(channels[i]->name, names[i]);
        *ids[i] = channels[i]->ID;
    }
    for (ccm_channel_t* channel : channels) {
        ccm_channel_chain(ccm, channel);
    }
    return 0;
}

int ccm_get_nof_server_connections(ccm_context_t* ccm) {
    return count(ccm, [](int type) { return type == CH_TYPE_SERVER || type == CH_TYPE_CP_CANDIDATE; });
}

int ccm_get_nof_connections(ccm_context_t* ccm) {
    return count(ccm, [](int type) {
        return type == CH_TYPE_LISTEN || type == CH_TYPE_SERVER || type == CH_TYPE_CP_CANDIDATE;
    });
}

int ccm_get_nof_agent_connections(ccm_context_t* ccm) {
    return count(ccm, [](int type) { return type == CH_TYPE_AGENT; });
}

int ccm_get_nof_channels(ccm_context_t* ccm) {
    return count(ccm, [](int type) { return type != CH_TYPE_PLACEHOLDER; });
}

int ccm_get_sendq_count(ccm_context_t* ccm) {
    if (ccm == nullptr) {
        return 0;
    }
    ccm_assert_no_spin_lock();
    int number = 0;
    spin_guard guard(&ccm->queue_lock);
    for (ccm_msg_t* msg = ccm->sendq.first; msg != nullptr; msg = msg->nxt) {
        ++number;
    }
    return number;
}

int ccm_channel_get_sendq_count(ccm_context_t* ccm, const char* name) {
    ccm_channel_t* channel = ccm_channel_getbyName(ccm, name);
    if (channel == nullptr) {
        return -1;
    }
    int number;
    {
        spin_guard guard(&channel->queue_lock);
        number = channel->nof_sendq;
    }
    ccm_channel_unlock(ccm);
    return number;
}

int ccm_is_all_sendq_empty(ccm_context_t* ccm) {
    if (ccm == nullptr) {
        return 1;
    }
    ccm_channel_lock(ccm);
    bool waiting;
    {
        spin_guard guard(&ccm->queue_lock);
        waiting = ccm->sendq.first != nullptr || ccm->msgq_2dispatch.first != nullptr || ccm->in_dispatch;
    }
    waiting = waiting || find_locked(ccm, [](ccm_channel_t* channel) {
                             spin_guard guard(&channel->queue_lock);
                             return channel->type.load() != CH_TYPE_SILENT && channel->sendq.first != nullptr;
                         }) != nullptr;
    ccm_channel_unlock(ccm);
    return waiting ? 0 : 1;
}

void channel_note_reason(ccm_channel_t* channel, int msgnr, const char* insert) {
    if (channel->msgnr == 0 && msgnr != 0) {
        channel->msgnr = msgnr;
        copy_text(channel->msginsert, insert);
    }
}

void channel_fail(ccm_context_t* ccm, ccm_channel_t* channel, int msgnr, const char* format, ...) {
    char insert[qx_insert_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(insert, sizeof insert, format, arguments);
    va_end(arguments);
    spin_guard guard(&ccm->channel_lock);
    channel_note_reason(channel, msgnr, insert);
    ccm_channel_delete(ccm, channel);
}

void channel_image(const ccm_channel_t* channel, ccm_channel_image_t* out) {
    memset(out, 0, sizeof *out);
    memcpy(out->eyec, channel->eyec, sizeof out->eyec);
    out->type = channel->type.load();
    out->flag = channel->flag.load();
    out->s = channel->s.load();
    out->ID = channel->ID;
    out->remoteID = channel->remoteID;
    out->port = channel->port;
    memcpy(out->name, channel->name, sizeof out->name);
    memcpy(out->addr, channel->addr, sizeof out->addr);
    memcpy(out->bind_addr, channel->bind_addr, sizeof out->bind_addr);
    memcpy(out->host, channel->host, sizeof out->host);
    out->cuc = channel->cuc != nullptr ? 1 : 0;
    out->nof_connection = channel->nof_connection;
    out->connect_timeout_secs = channel->connect_timeout_secs;
    out->connect_timeout = channel->connect_timeout;
    out->timestamp_last_io = channel->timestamp_last_io.load();
    out->timestamp_last_read = channel->timestamp_last_read.load();
    out->msgnr = channel->msgnr;
    memcpy(out->msginsert, channel->msginsert, sizeof out->msginsert);
}

void channel_post_close(ccm_context_t* ccm, const ccm_channel_t* channel, bool with_user_context) {
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, sizeof(ipcmsg_channel_close_t), nullptr);
    if (msg == nullptr) {
        return;  // the next look at the connection's state tells the main thread
    }
    ipcmsg_channel_close_t record{};
    memcpy(record.header.msgtype, ipc_channel_close, sizeof record.header.msgtype);
    channel_image(channel, &record.ccmch);
    record.ccmch.cuc = 0;
    if (with_user_context && channel->cuc != nullptr) {
        record.ccmch.cuc = 1;
        memcpy(&record.cuc, channel->cuc, offsetof(ccm_connect_user_context_t, pDelegCred));
        record.cuc.gss_len = 0;  // the token itself stays with the channel and is wiped with it
    }
    memcpy(msg->msg_start, &record, sizeof record);
    send_IPC_internal(ccm, msg);
}

namespace {

void log_destruction(const ccm_channel_t* channel) {
    if (channel->msgnr != 0) {
        __log(channel->msgnr, "%s", channel->msginsert);
    }
    int s = channel->s.load();
    std::string name = printable(field_text(channel->name));
    switch (channel->type.load()) {
        case CH_TYPE_SILENT:
            break;
        case CH_TYPE_ACCEPTED:
            // Each call of a job's messenger is one. What failed has told it above.
            if (trc_on(TRC_TCPIP)) {
                _TraceText("connection from %s (s=%d,ID=%d) is closed", channel->addr, s, channel->ID);
            }
            break;
        case CH_TYPE_LISTEN:
            __log(number_connection_closed, "s=%d,ID=%d|%s", s, channel->ID, ccm_name_listen);
            break;
        case CH_TYPE_SERVER:
        case CH_TYPE_CP_CANDIDATE:
            __log(number_server_closed, "%s(s=%d,ID=%d)", name.c_str(), s, channel->ID);
            break;
        case CH_TYPE_AGENT:
            __log(number_agent_closed, "%s(s=%d,ID=%d)", name.c_str(), s, channel->ID);
            break;
        default:
            __log(number_connection_closed, "s=%d,ID=%d|%s", s, channel->ID, name.c_str());
            break;
    }
}

// Never shutdown(2): a process that was forked or adopted the socket may still use the connection.
void close_socket(int s) {
    // The close would otherwise wait up to the linger time until the partner has acknowledged everything.
    // Switched off, the kernel still delivers what it holds, in the background.
    linger off{0, 0};
    // A socket pair has no linger; its failure changes nothing.
    setsockopt(s, SOL_SOCKET, SO_LINGER, &off, sizeof off);
    close(s);
}

}  // namespace

void channel_destroy(ccm_context_t* ccm, ccm_channel_t* channel) {
    log_destruction(channel);
    keep_unsent(ccm, channel);
    int type = channel->type.load();
    if (type != CH_TYPE_PLACEHOLDER && type != CH_TYPE_SILENT) {
        channel_post_close(ccm, channel, true);
    }
    channel_free(ccm, channel, true);
}

void channel_free(ccm_context_t* ccm, ccm_channel_t* channel, bool free_user_context) {
    ccm_channel_emptying_msg_queue(ccm, channel);
    if (free_user_context) {
        ccm_user_context_free(channel->cuc);
    }
    int s = channel->s.exchange(-1);
    if (s >= 0) {
        close_socket(s);
    }
    pthread_spin_destroy(&channel->queue_lock);
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &channel->pATctx, nullptr);
    gss_release_cred(&minor, &channel->pDelegCred);
    backlog_release(channel->backlog);
    channel->~ccm_channel_t();
    qx_wipe(static_cast<void*>(channel), sizeof *channel);
    free(channel);
}

int descriptors_in_range(int (&ends)[2]) {
    const int first = descriptor_in_range(ends[0]);
    const int second = descriptor_in_range(ends[1]);
    if (first >= 0 && second >= 0) {
        return 0;
    }
    for (int kept : {first, second}) {
        if (kept >= 0) {
            close(kept);
        }
    }
    ends[0] = ends[1] = -1;
    errno = EMFILE;
    return -1;
}

int descriptor_in_range(int fd) {
    if (fd >= ccm_descriptor_limit) {
        close(fd);
        errno = EMFILE;
        return -1;
    }
    return fd;
}
