#include "channels/fork.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <vector>

#include "base/descriptor.h"
#include "channels/internal.h"

namespace {

void drop(ccm_channel_t* channel) {
    int s = channel->s.exchange(-1);
    if (s >= 0) {
        close(s);  // the parent's socket stays open, so this close never waits
    }
    channel->fifo.clear();
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &channel->pATctx, nullptr);
    gss_release_cred(&minor, &channel->pDelegCred);
    if (channel->cuc != nullptr) {
        gss_release_cred(&minor, &channel->cuc->pDelegCred);
    }
}

void keep(ccm_channel_t* channel, bool with_buffer) {
    channel->pen.store(false);
    channel->sendq = {};
    channel->recvq = {};
    channel->nof_sendq = 0;
    channel->sendq_bytes = 0;
    channel->flag.fetch_and(~CH_FLAG_NO_READ);  // it was held for the fork
    if (!with_buffer) {
        channel->recv_pos = 0;
        channel->fifo.clear();
    }
    channel->recv_ready = with_buffer && channel->recv_pos > 0;
    // Messages of the parent are never handled here.
    channel->backlog = new ccm_backlog_t;
}

void close_wakeups(ccm_context_t* ccm) {
    for (int* end : {&ccm->network_wakeup[0], &ccm->network_wakeup[1], &ccm->processor_wakeup[0],
                     &ccm->processor_wakeup[1]}) {
        if (*end >= 0) {
            close(*end);
            *end = -1;
        }
    }
    ccm->network_wake.store(0);
    ccm->processor_wake.store(0);
}

int close_span(unsigned first, unsigned last) {
    return first > last ? 0 : static_cast<int>(syscall(SYS_close_range, first, last, 0U));
}

// What is open from 3 up and not in `kept`, which is sorted. Without a list of the kernel's every number
// counts.
std::vector<int> open_descriptors_but(const std::vector<int>& kept) {
    std::vector<int> found;
    qx_directory list(opendir("/proc/self/fd"));
    if (list.dir == nullptr) {
        for (int fd = 3; fd < ccm_descriptor_limit; ++fd) {
            if (!std::binary_search(kept.begin(), kept.end(), fd)) {
                found.push_back(fd);
            }
        }
        return found;
    }
    while (const dirent* entry = readdir(list.dir)) {
        int fd = atoi(entry->d_name);
        if (fd >= 3 && fd != dirfd(list.dir) && !std::binary_search(kept.begin(), kept.end(), fd)) {
            found.push_back(fd);
        }
    }
    return found;
}

// For kernels without close_range.
void close_listed(const std::vector<int>& kept) {
    for (int fd : open_descriptors_but(kept)) {
        close(fd);
    }
}

// Whoever handles one of them just now frees it, but no list holds it any more.
void forget_messages_in_use(ccm_context_t* ccm) {
    for (ccm_msg_t *msg = ccm->msgq_inuse, *next; msg != nullptr; msg = next) {
        next = msg->nxt;
        msg->nxt = msg->prv = nullptr;
        msg->inuse = false;
    }
    ccm->msgq_inuse = nullptr;
}

}  // namespace

void ccm_child_keep_channels(ccm_context_t* ccm, const int* keep_ids, int count, int keep_buffer_id) {
    spin_forget();
    ccm->thread_started.store(0);
    ccm->loop.store(0);
    close_wakeups(ccm);
    // No thread but this one exists: nothing is locked.
    ccm->sendq = {};
    ccm->recvq = {};
    ccm->msgq_2dispatch = {};
    ccm->msgq_kept = {};
    ccm->msg_freeq = {};
    forget_messages_in_use(ccm);
    ccm->nof_freemsg = 0;
    ccm->nof_kept = 0;
    ccm->kept_bytes = 0;
    ccm->in_dispatch = false;
    ccm->flag.fetch_and(~CCM_FLAG_CHANNELS_TO_DELETE);
    ccm_channel_merge_newq(ccm);
    ccm_channel_queue live{};
    for (ccm_channel_t *channel = ccm->channelq.first, *next; channel != nullptr; channel = next) {
        next = channel->nxt;
        bool wanted = std::find(keep_ids, keep_ids + count, channel->ID) != keep_ids + count &&
                      !channel_has(channel, CH_FLAG_DELETED);
        if (wanted) {
            keep(channel, channel->ID == keep_buffer_id);
            queue_append(&live, channel);
        } else {
            drop(channel);
        }
    }
    ccm->channelq = live;
}

void ccm_close_descriptors_except(const int* keep, int count) {
    std::vector<int> kept(keep, keep + count);
    std::sort(kept.begin(), kept.end());
    unsigned first = 3;
    for (int fd : kept) {
        if (fd < static_cast<int>(first)) {
            continue;
        }
        if (close_span(first, static_cast<unsigned>(fd) - 1) != 0) {
            close_listed(kept);
            return;
        }
        first = static_cast<unsigned>(fd) + 1;
    }
    if (close_span(first, UINT_MAX) != 0) {
        close_listed(kept);
    }
}

void ccm_blind_descriptors_except(const int* keep, int count) {
    std::vector<int> kept(keep, keep + count);
    std::sort(kept.begin(), kept.end());
    const std::vector<int> open_ones = open_descriptors_but(kept);
    const qx_descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd : open_ones) {
        if (!null.valid() || dup3(null.get(), fd, O_CLOEXEC) < 0) {
            close(fd);
        }
    }
}
