// From the queue of the process to the queues of its channels, and what waits for a channel to come.

#include <cstring>
#include <utility>

#include "channels/internal.h"

namespace {

// What has waited for the server must not overtake the logon, nor come before the server's answer to it.
bool waits_for_logon(const ccm_context_t* ccm, const ccm_channel_t* channel, const ccm_msg_t* msg) {
    return ccm->pcx->running_mode == MODE_AGENT && msg->type == CCM_MSG_NAT &&
           (msg->flag & CCM_MSG_FLAG_KEEP) != 0 && channel->type.load() == CH_TYPE_SERVER &&
           (ccm->pcx->pcx_flag.load() & PCX_FLAG_LOGGED_IN) == 0;
}

// Destination of a queued message. With a channel channel_lock is held.
ccm_channel_t* find_destination(ccm_context_t* ccm, ccm_msg_t* msg) {
    if (msg->addr.dst_ID != 0) {
        return ccm_channel_getbyID(ccm, msg->addr.dst_ID);
    }
    if (strncmp(msg->addr.dst_addr, "*CP", 3) == 0) {
        copy_text(msg->addr.dst_addr, ccm_name_server);
    }
    ccm_channel_t* channel = ccm_channel_getbyName(ccm, msg->addr.dst_addr);
    if (channel != nullptr && msg->type == CCM_MSG_NAT && field_text(channel->name) == ccm_name_server &&
        (channel->type.load() != CH_TYPE_SERVER || !channel_has(channel, CH_FLAG_SEALED))) {
        ccm_channel_unlock(ccm);  // chosen, but not the server yet
        return nullptr;
    }
    if (channel != nullptr && waits_for_logon(ccm, channel, msg)) {
        ccm_channel_unlock(ccm);
        return nullptr;
    }
    return channel;
}

// Under channel_lock and the channel's queue_lock.
bool takes_no_more(const ccm_channel_t* channel, const ccm_msg_t* msg) {
    return channel->sendq.first != nullptr && channel->sendq_bytes + msg->len > ccm_queue_limit;
}

void give_up_full_channel(ccm_context_t* ccm, ccm_channel_t* channel) {
    char reason[256];
    snprintf(reason, sizeof reason,
             "%.63s(ID=%d) takes nothing: %lld bytes in %d messages wait for it, the connection is closed",
             channel->addr, channel->ID, static_cast<long long>(channel->sendq_bytes), channel->nof_sendq);
    channel_note_reason(channel, -1, reason);
    ccm_channel_delete(ccm, channel);
}

// Under channel_lock.
void join(ccm_channel_t* channel, ccm_msg_t* msg) {
    msg->pATctx = channel->pATctx;
    if (msg->type == CCM_MSG_NAT && channel_has(channel, CH_FLAG_SEALED)) {
        msg->flag |= CCM_MSG_FLAG_SEAL;
    }
    spin_guard guard(&channel->queue_lock);
    queue_append(&channel->sendq, msg);
    sendq_joined(channel, msg);
}

// True when the message has found its channel.
bool dispatch_one(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_channel_t* channel = find_destination(ccm, msg);
    if (channel == nullptr) {
        return false;
    }
    bool full;
    {
        spin_guard guard(&channel->queue_lock);
        full = takes_no_more(channel, msg);
    }
    if (full) {
        give_up_full_channel(ccm, channel);
        ccm_channel_unlock(ccm);
        return false;
    }
    join(channel, msg);
    ccm_channel_unlock(ccm);
    return true;
}

// Messages that wait for their channel: the oldest go when there are too many.
struct kept_messages {
    ccm_msg_queue queue{};
    int count = 0;
    int64_t bytes = 0;
};

void keep_or_free(ccm_context_t* ccm, ccm_msg_t* msg, kept_messages* kept) {
    if ((msg->flag & CCM_MSG_FLAG_KEEP) == 0) {
        ccm_msg_free(ccm, msg);
        return;
    }
    queue_append(&kept->queue, msg);
    ++kept->count;
    kept->bytes += msg->len;
    while (kept->count > 1 && (kept->count > ccm_msg_kept_max || kept->bytes > ccm_queue_limit)) {
        ccm_msg_t* oldest = queue_take(&kept->queue);
        --kept->count;
        kept->bytes -= oldest->len;
        __log(-1, "more than %d messages or %lld bytes wait for a partner: the oldest is given up",
              ccm_msg_kept_max, static_cast<long long>(ccm_queue_limit));
        ccm_msg_free(ccm, oldest);
    }
}

// Whether everything that was sent before has found its channel.
bool nothing_waits(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    return ccm->sendq.first == nullptr && ccm->msgq_2dispatch.first == nullptr && !ccm->in_dispatch &&
           ccm->msgq_kept.first == nullptr;
}

// Under channel_lock: a connection that stands, with nothing in front of a new message.
bool writes_at_once(ccm_channel_t* channel) {
    return channel->s.load() >= 0 &&
           (channel_has(channel, CH_FLAG_SEALED) || channel->type.load() == CH_TYPE_IPC) &&
           !send_queue_filled(channel);
}

}  // namespace

int64_t ccm_queue_limit = 128LL << 20;

void sendq_joined(ccm_channel_t* channel, ccm_msg_t* msg) {
    msg->queued = msg->len;
    ++channel->nof_sendq;
    channel->sendq_bytes += msg->queued;
}

void sendq_left(ccm_channel_t* channel, const ccm_msg_t* msg) {
    --channel->nof_sendq;
    channel->sendq_bytes -= msg->queued;
}

bool send_queue_filled(ccm_channel_t* channel) {
    spin_guard guard(&channel->queue_lock);
    return channel->sendq.first != nullptr;
}

bool pen_take(ccm_channel_t* channel) {
    return !channel->pen.exchange(true);
}

void pen_give_back(ccm_context_t* ccm, ccm_channel_t* channel) {
    bool left;
    {
        // From here on the channel may be destroyed, and what is queued behind this is seen by the network
        // thread.
        spin_guard guard(&ccm->channel_lock);
        left = channel_has(channel, CH_FLAG_DELETED) || send_queue_filled(channel);
        channel->pen.store(false);
    }
    if (left) {
        ccm_wakeup_network(ccm);
    }
}

ccm_channel_t* ccm_find_to_write(ccm_context_t* ccm, ccm_msg_t* msg) {
    if (ccm->thread_started.load() == 0 || msg->len > ccm_write_at_once_max || !nothing_waits(ccm)) {
        return nullptr;
    }
    ccm_channel_t* channel = find_destination(ccm, msg);
    if (channel != nullptr && !(writes_at_once(channel) && pen_take(channel))) {
        ccm_channel_unlock(ccm);
        return nullptr;
    }
    return channel;
}

bool ccm_write_at_once(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_channel_t* channel = ccm_find_to_write(ccm, msg);
    if (channel == nullptr) {
        return false;
    }
    {
        spin_guard guard(&ccm->queue_lock);
        inuse_unlink(ccm, msg);
    }
    join(channel, msg);
    ccm_channel_unlock(ccm);
    write_queued(ccm, channel);  // a channel that failed is marked deleted, and the network thread sees to it
    pen_give_back(ccm, channel);
    return true;
}

void keep_unsent(ccm_context_t* ccm, ccm_channel_t* channel) {
    ccm_msg_queue unsent{};
    {
        spin_guard guard(&channel->queue_lock);
        std::swap(unsent, channel->sendq);
        channel->nof_sendq = 0;
        channel->sendq_bytes = 0;
    }
    kept_messages kept;
    while (ccm_msg_t* msg = queue_take(&unsent)) {
        // One for this channel alone has nowhere else to go.
        if ((msg->flag & CCM_MSG_FLAG_KEEP) == 0 || msg->addr.dst_ID != 0) {
            ccm_msg_free(ccm, msg);
            continue;
        }
        if (msg->plain_start != nullptr) {
            msg->msg_start = msg->plain_start;
            msg->len = msg->plain_len;
            msg->plain_start = nullptr;
        }
        msg->pos = 0;
        msg->pATctx = nullptr;
        keep_or_free(ccm, msg, &kept);
    }
    if (kept.count == 0) {
        return;
    }
    spin_guard guard(&ccm->queue_lock);
    kept.queue.last->nxt = ccm->msgq_kept.first;
    if (ccm->msgq_kept.first == nullptr) {
        ccm->msgq_kept.last = kept.queue.last;
    }
    ccm->msgq_kept.first = kept.queue.first;
    ccm->nof_kept += kept.count;
    ccm->kept_bytes += kept.bytes;
}

// Messages that wait for their channel come first, in their order; then what was sent since the last cycle.
void ccm_dispatch_send_messages(ccm_context_t* ccm) {
    ccm_msg_queue waiting{};
    {
        spin_guard guard(&ccm->queue_lock);
        if (ccm->sendq.first == nullptr && ccm->msgq_kept.first == nullptr) {
            return;
        }
        std::swap(ccm->msgq_2dispatch, ccm->sendq);
        std::swap(waiting, ccm->msgq_kept);
        ccm->in_dispatch = true;
    }
    kept_messages kept;
    while (ccm_msg_t* msg = queue_take(&waiting)) {
        if (!dispatch_one(ccm, msg)) {
            keep_or_free(ccm, msg, &kept);
        }
    }
    for (;;) {
        ccm_msg_t* msg;
        {
            spin_guard guard(&ccm->queue_lock);
            msg = queue_take(&ccm->msgq_2dispatch);
        }
        if (msg == nullptr) {
            break;
        }
        if (!dispatch_one(ccm, msg)) {
            keep_or_free(ccm, msg, &kept);
        }
    }
    spin_guard guard(&ccm->queue_lock);
    ccm->msgq_kept = kept.queue;
    ccm->nof_kept = kept.count;
    ccm->kept_bytes = kept.bytes;
    ccm->in_dispatch = false;
}
