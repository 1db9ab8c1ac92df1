#include "agent/timers.h"

#include <cstring>
#include <list>
#include <new>
#include <string_view>

#include "base/text.h"
#include "base/time.h"
#include "channels/ipc.h"
#include "log/trace.h"

struct __timer {
    char eyec[8];  // "##TIMER#", no NUL
    int flags;
    char name[64];
    char minor[64];
    int recurrence;
    time_t next_hit;
    timer_callback cb_function;
    void* cb_context;
};

// Timers are touched by the main thread only, so their list needs no lock: the callbacks run there too.
struct __qx_timer_context {
    char eyec[16];  // "##TIMER#CONTEXT#", no NUL
    const std::atomic<char>* trc_flag;
    ccm_context_t* ccm;
    time_t last_check;
    std::list<__timer> timers;
};

namespace {

constexpr char context_eyecatcher[] = "##TIMER#CONTEXT#";
constexpr char timer_eyecatcher[] = "##TIMER#";
constexpr char any_minor[] = "*";

int timer_check_context(const __qx_timer_context* ctx) {
    return ctx != nullptr && memcmp(ctx->eyec, context_eyecatcher, sizeof ctx->eyec) == 0 ? 0 : -1;
}

bool traced(const __qx_timer_context* ctx) {
    return ctx->trc_flag != nullptr && ctx->trc_flag->load(std::memory_order_relaxed) > '0';
}

bool matches(const __timer& timer, std::string_view name, std::string_view minor) {
    return name == timer.name && (minor == any_minor || minor == timer.minor);
}

std::list<__timer>::iterator find(__qx_timer_context* ctx, std::string_view name, std::string_view minor) {
    auto at = ctx->timers.begin();
    while (at != ctx->timers.end() && !matches(*at, name, minor)) {
        ++at;
    }
    return at;
}

time_t first_time(time_t first_hit, int recurrence) {
    return first_hit != 0 ? first_hit : alarm_now() + recurrence;
}

void fire(__qx_timer_context* ctx, const __timer& timer) {
    if (traced(ctx)) {
        _TraceText("timer '%s'/'%s' fires", timer.name, timer.minor);
    }
    ccm_msg_t* msg = ipc_record_alloc(ctx->ccm, ipc_timer_fire, sizeof(ipcmsg_timer_fire_t));
    if (msg == nullptr) {
        return;  // no memory: a recurring timer tries again at its next time
    }
    ipcmsg_timer_fire_t record;
    memcpy(&record, ccm_msg_body(msg), sizeof record);
    record.cb_function = timer.cb_function;
    record.cb_context = timer.cb_context;
    copy_text(record.name, timer.name);
    copy_text(record.minor, timer.minor);
    memcpy(ccm_msg_body(msg), &record, sizeof record);
    send_IPC_internal(ctx->ccm, msg);
}

// Grows by whole periods, so that the rhythm stays; periods that were missed altogether give one hit only.
void set_next_hit(__timer* timer, time_t now) {
    timer->next_hit += timer->recurrence;
    if (timer->next_hit <= now) {
        timer->next_hit +=
            (now - timer->next_hit) / timer->recurrence * timer->recurrence + timer->recurrence;
    }
}

}  // namespace

int timer_open(__qx_timer_context** ctx, ccm_context_t* ccm, const std::atomic<char>* trc_flag) {
    __qx_timer_context* made = new (std::nothrow) __qx_timer_context();
    *ctx = made;
    if (made == nullptr) {
        return -1;
    }
    memcpy(made->eyec, context_eyecatcher, sizeof made->eyec);
    made->ccm = ccm;
    made->trc_flag = trc_flag;
    return 0;
}

int timer_close(__qx_timer_context** ctx) {
    if (timer_check_context(*ctx) != 0) {
        return -1;
    }
    memset((*ctx)->eyec, 0, sizeof(*ctx)->eyec);
    delete *ctx;
    *ctx = nullptr;
    return 0;
}

int timer_clearall(__qx_timer_context* ctx) {
    if (timer_check_context(ctx) != 0) {
        return -1;
    }
    ctx->timers.clear();
    return 0;
}

int timer_add(__qx_timer_context* ctx, const char* name, const char* minor, time_t first_hit, int recurrence,
              timer_callback cb, void* cb_context) {
    if (timer_check_context(ctx) != 0) {
        return -1;
    }
    auto at = find(ctx, name, minor);
    if (at == ctx->timers.end()) {
        at = ctx->timers.insert(at, __timer());
        memcpy(at->eyec, timer_eyecatcher, sizeof at->eyec);
        copy_text(at->name, name);
        copy_text(at->minor, minor);
    }
    at->recurrence = recurrence < 0 ? 0 : recurrence;
    at->next_hit = first_time(first_hit, at->recurrence);
    at->cb_function = cb;
    at->cb_context = cb_context;
    return 0;
}

int timer_reset(__qx_timer_context* ctx, const char* name, const char* minor, time_t first_hit,
                int recurrence) {
    if (timer_check_context(ctx) != 0) {
        return -1;
    }
    const auto at = find(ctx, name, minor);
    if (at != ctx->timers.end()) {
        at->recurrence = recurrence < 0 ? 0 : recurrence;
        at->next_hit = first_time(first_hit, at->recurrence);
    }
    return 0;
}

int timer_remove(__qx_timer_context* ctx, const char* name, const char* minor) {
    if (timer_check_context(ctx) != 0) {
        return -1;
    }
    const auto at = find(ctx, name, minor);
    if (at == ctx->timers.end()) {
        return -1;
    }
    ctx->timers.erase(at);
    return 0;
}

time_t timer_next(const __qx_timer_context* ctx) {
    time_t next = 0;
    if (timer_check_context(ctx) == 0) {
        for (const __timer& timer : ctx->timers) {
            next = next == 0 || timer.next_hit < next ? timer.next_hit : next;
        }
    }
    return next;
}

int timer_check(__qx_timer_context* ctx) {
    return timer_check_at(ctx, alarm_now());
}

int timer_check_at(__qx_timer_context* ctx, time_t now) {
    if (timer_check_context(ctx) != 0) {
        return -1;
    }
    if (ctx->last_check == now) {
        return 0;
    }
    ctx->last_check = now;
    for (auto at = ctx->timers.begin(); at != ctx->timers.end();) {
        if (at->next_hit > now) {
            ++at;
            continue;
        }
        fire(ctx, *at);
        if (at->recurrence > 0) {
            set_next_hit(&*at, now);
            ++at;
        } else {
            at = ctx->timers.erase(at);
        }
    }
    return 0;
}
