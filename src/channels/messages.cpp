// Pool, addresses and queues of messages.
#include "channels/messages.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/message_numbers.h"
#include "channels/internal.h"

namespace {

static_assert(alignof(ccm_msg_t) == 16 && sizeof(ccm_msg_t) % 16 == 0);

constexpr int message_size_max = ccm_frame_max;

size_t buffer_size(int size) {
    return static_cast<size_t>(ccm_msg_headroom) + static_cast<size_t>(size) + ccm_msg_tailroom;
}

bool is_plain(const ccm_msg_t* msg) {
    return msg->msg_start >= msg->buffer1 && msg->msg_start < msg->buffer1 + buffer_size(msg->size);
}

// Behind the record: one buffer, or both.
ccm_msg_t* new_message(ccm_context_t* ccm, int size, bool both, ccm_msg_t* msg, ccm_error_t* err) {
    if (msg == nullptr && size >= 0 && size <= message_size_max) {
        msg = static_cast<ccm_msg_t*>(calloc(1, sizeof(ccm_msg_t) + (both ? 2 : 1) * buffer_size(size)));
    }
    if (msg == nullptr) {
        qx_error_set(err, -1, ENOMEM, number_no_memory, "%s/%s(%d)", "CCMMSG", __FILE__, __LINE__);
        return nullptr;
    }
    *msg = ccm_msg_t{};
    memcpy(msg->eyec, "##CCM#MESSAGE###", sizeof msg->eyec);
    msg->size = size;
    msg->passfd = -1;
    msg->fitted = !both;
    msg->buffer1 = reinterpret_cast<unsigned char*>(msg) + sizeof(ccm_msg_t);
    msg->buffer2 = both ? msg->buffer1 + buffer_size(size) : nullptr;
    msg->msg_start = msg->buffer1 + ccm_msg_headroom;
    spin_guard guard(&ccm->queue_lock);
    msg->ID = ccm->unique_msg_ID++;
    inuse_link(ccm, msg);
    return msg;
}

// Bodies carry passwords and file contents; neither shall stand in a later message's buffer.
void wipe_plain(ccm_msg_t* msg) {
    if (msg->type == CCM_MSG_NAT && msg->len > 0 && is_plain(msg)) {
        qx_wipe(msg->msg_start, static_cast<size_t>(msg->len));
    }
    if (msg->plain_start != nullptr) {
        qx_wipe(msg->plain_start, static_cast<size_t>(msg->plain_len));
        msg->plain_start = nullptr;
    }
}

ccm_msg_t* take_from_pool(ccm_context_t* ccm) {
    spin_guard guard(&ccm->queue_lock);
    ccm_msg_t* msg = queue_take(&ccm->msg_freeq);
    if (msg != nullptr) {
        --ccm->nof_freemsg;
    }
    return msg;
}

// True when the pool took it.
bool give_to_pool(ccm_context_t* ccm, ccm_msg_t* msg) {
    spin_guard guard(&ccm->queue_lock);
    inuse_unlink(ccm, msg);
    if (msg->fitted || msg->size != ccm_msg_standard_size || ccm->nof_freemsg >= ccm_msg_pool_size) {
        return false;
    }
    msg->nxt = ccm->msg_freeq.first;
    ccm->msg_freeq.first = msg;
    if (ccm->msg_freeq.last == nullptr) {
        ccm->msg_freeq.last = msg;
    }
    ++ccm->nof_freemsg;
    return true;
}

// A received message is done with: its channel may be read again.
void leave_backlog(ccm_context_t* ccm, ccm_msg_t* msg) {
    ccm_backlog_t* backlog = std::exchange(msg->backlog, nullptr);
    if (backlog == nullptr) {
        return;
    }
    bool wake = msg->type == CCM_MSG_GSS && backlog->handshakes.fetch_sub(1) == 1;
    int left = backlog->unhandled.fetch_sub(1) - 1;
    if (left <= ccm_unhandled_limit / 2 && backlog->paused.exchange(0) != 0) {
        wake = true;
    }
    backlog_release(backlog);
    if (wake) {
        ccm_wakeup_network(ccm);
    }
}

}  // namespace

void queue_append(ccm_msg_queue* queue, ccm_msg_t* msg) {
    msg->nxt = nullptr;
    if (queue->last == nullptr) {
        queue->first = msg;
    } else {
        queue->last->nxt = msg;
    }
    queue->last = msg;
}

ccm_msg_t* queue_take(ccm_msg_queue* queue) {
    ccm_msg_t* msg = queue->first;
    if (msg != nullptr) {
        queue->first = msg->nxt;
        if (queue->first == nullptr) {
            queue->last = nullptr;
        }
    }
    return msg;
}

void queue_append(ccm_channel_queue* queue, ccm_channel_t* channel) {
    channel->nxt = nullptr;
    if (queue->last == nullptr) {
        queue->first = channel;
    } else {
        queue->last->nxt = channel;
    }
    queue->last = channel;
}

void inuse_link(ccm_context_t* ccm, ccm_msg_t* msg) {
    msg->prv = nullptr;
    msg->nxt = ccm->msgq_inuse;
    if (msg->nxt != nullptr) {
        msg->nxt->prv = msg;
    }
    ccm->msgq_inuse = msg;
    msg->inuse = true;
}

void inuse_unlink(ccm_context_t* ccm, ccm_msg_t* msg) {
    if (!msg->inuse) {
        return;
    }
    if (msg->prv != nullptr) {
        msg->prv->nxt = msg->nxt;
    } else {
        ccm->msgq_inuse = msg->nxt;
    }
    if (msg->nxt != nullptr) {
        msg->nxt->prv = msg->prv;
    }
    msg->nxt = nullptr;
    msg->prv = nullptr;
    msg->inuse = false;
}

void backlog_release(ccm_backlog_t* backlog) {
    if (backlog != nullptr && backlog->references.fetch_sub(1) == 1) {
        delete backlog;
    }
}

ccm_msg_t* ccm_msg_alloc(ccm_context_t* ccm, ccm_error_t* err) {
    return ccm_msg_alloc_huge(ccm, ccm_msg_standard_size, err);
}

ccm_msg_t* ccm_msg_alloc_huge(ccm_context_t* ccm, int size, ccm_error_t* err) {
    ccm_assert_no_spin_lock();
    ccm_msg_t* pooled = size == ccm_msg_standard_size ? take_from_pool(ccm) : nullptr;
    return new_message(ccm, size, true, pooled, err);
}

ccm_msg_t* ccm_msg_fit(ccm_context_t* ccm, ccm_msg_t* msg) {
    if (msg->fitted || msg->size < ccm_msg_standard_size || msg->len < 0 || msg->len > ccm_msg_fit_below ||
        !is_plain(msg)) {
        return msg;
    }
    ccm_msg_t* fit = new_message(ccm, msg->len, false, nullptr, nullptr);
    if (fit == nullptr) {
        return msg;
    }
    fit->addr = msg->addr;
    fit->type = msg->type;
    fit->protocol_key = msg->protocol_key;
    fit->flag = msg->flag;
    fit->origin = msg->origin;
    fit->len = msg->len;
    fit->passfd = std::exchange(msg->passfd, -1);
    fit->agentID = msg->agentID;
    fit->pATctx = msg->pATctx;
    fit->pDelegCred = msg->pDelegCred;
    fit->backlog = std::exchange(msg->backlog, nullptr);
    memcpy(fit->msg_start, msg->msg_start, static_cast<size_t>(msg->len));
    ccm_msg_free(ccm, msg);
    return fit;
}

int ccm_msg_second_buffer(ccm_msg_t* msg) {
    if (msg->buffer2 == nullptr) {
        msg->buffer2 = static_cast<unsigned char*>(malloc(buffer_size(msg->size)));
    }
    return msg->buffer2 == nullptr ? -1 : 0;
}

void ccm_msg_pool_trim(ccm_context_t* ccm, int keep) {
    for (;;) {
        ccm_msg_t* msg;
        {
            spin_guard guard(&ccm->queue_lock);
            if (ccm->nof_freemsg <= keep) {
                return;
            }
            msg = queue_take(&ccm->msg_freeq);
            --ccm->nof_freemsg;
        }
        free(msg);
    }
}

ccm_msg_t* ccm_msg_alloc_cleared(ccm_context_t* ccm, int size, ccm_error_t* err) {
    ccm_msg_t* msg =
        ccm_msg_alloc_huge(ccm, size > ccm_msg_standard_size ? size : ccm_msg_standard_size, err);
    if (msg != nullptr && size > 0) {
        memset(msg->msg_start, 0, static_cast<size_t>(size));
        msg->len = size;
    }
    return msg;
}

int ccm_msg_free(ccm_context_t* ccm, ccm_msg_t* msg) {
    if (msg == nullptr) {
        return 0;
    }
    ccm_assert_no_spin_lock();
    leave_backlog(ccm, msg);
    if (msg->passfd >= 0) {
        close(msg->passfd);
        msg->passfd = -1;
    }
    wipe_plain(msg);
    if (!give_to_pool(ccm, msg)) {
        if (msg->fitted) {
            free(msg->buffer2);
        }
        free(msg);
    }
    return 0;
}

void ccm_setaddr(ccm_msg_t* msg, int dst_ID, int, const char* dst_addr, const char* dst_name, int dst_acv) {
    memcpy(msg->addr.eyec, "#CCMADDR", sizeof msg->addr.eyec);
    msg->addr.dst_ID = dst_ID;
    copy_text(msg->addr.dst_addr, dst_addr == nullptr ? "" : dst_addr);
    copy_text(msg->addr.dst_name, dst_name == nullptr ? "" : dst_name);
    msg->addr.dst_acv = dst_acv;
}

void ccm_setback(ccm_msg_t* msg, const char* src_addr, const char* src_name, int src_acv) {
    memcpy(msg->addr.eyec, "#CCMADDR", sizeof msg->addr.eyec);
    copy_text(msg->addr.src_addr, src_addr == nullptr ? "" : src_addr);
    copy_text(msg->addr.src_name, src_name == nullptr ? "" : src_name);
    msg->addr.src_acv = src_acv;
}

void ccm_setaddr_reply(ccm_msg_t* msg, const ccm_msg_t* request) {
    const ccm_addr_t& from = request->addr;
    memcpy(msg->addr.eyec, "#CCMADDR", sizeof msg->addr.eyec);
    msg->addr.dst_ID = from.src_ID;
    msg->addr.dst_acv = from.src_acv;
    memcpy(msg->addr.dst_addr, from.src_addr, sizeof msg->addr.dst_addr);
    memcpy(msg->addr.dst_name, from.src_name, sizeof msg->addr.dst_name);
}

void queue_free_all(ccm_context_t* ccm, ccm_msg_queue* queue, pthread_spinlock_t* lock) {
    ccm_msg_queue taken{};
    {
        spin_guard guard(lock);
        std::swap(taken, *queue);
    }
    while (ccm_msg_t* msg = queue_take(&taken)) {
        ccm_msg_free(ccm, msg);
    }
}

void ccm_channel_emptying_msg_queue(ccm_context_t* ccm, ccm_channel_t* channel) {
    queue_free_all(ccm, &channel->sendq, &channel->queue_lock);
    queue_free_all(ccm, &channel->recvq, &channel->queue_lock);
    spin_guard guard(&channel->queue_lock);
    channel->nof_sendq = 0;
    channel->sendq_bytes = 0;
}

void ccm_msg_emptying_queues(ccm_context_t* ccm) {
    for (ccm_msg_queue* queue : {&ccm->recvq, &ccm->sendq, &ccm->msgq_2dispatch, &ccm->msgq_kept}) {
        queue_free_all(ccm, queue, &ccm->queue_lock);
    }
    ccm->nof_kept = 0;
    ccm->kept_bytes = 0;
    ccm->in_dispatch = false;
    while (ccm->msgq_inuse != nullptr) {
        ccm_msg_free(ccm, ccm->msgq_inuse);
    }
    for (ccm_channel_t* head : {ccm->channelq.first, ccm->channel_newq.first}) {
        for (ccm_channel_t* channel = head; channel != nullptr; channel = channel->nxt) {
            if (!channel_has(channel, CH_FLAG_DELETED)) {
                channel->recv_pos = 0;
                channel->recv_ready = false;
                ccm_channel_emptying_msg_queue(ccm, channel);
            }
        }
    }
}
