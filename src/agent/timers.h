// Named timers. A timer that is due posts a record to the own loop; its callback runs there.
#pragma once

#include <atomic>
#include <ctime>

struct __qx_timer_context;
struct ccm_context_t;

// Runs on the main thread without any lock held; it may add, reset and remove timers.
using timer_callback = int (*)(void* context, const char* name, const char* minor);

// `trc_flag` points to the trace level that switches the timers' trace lines. 0, or -1 without memory.
int timer_open(__qx_timer_context** ctx, ccm_context_t* ccm, const std::atomic<char>* trc_flag);
// Frees all timers; a null context is no error.
int timer_close(__qx_timer_context** ctx);
int timer_clearall(__qx_timer_context* ctx);
// Adds the timer (`name`, `minor`), or updates the one that exists, which keeps its place. `first_hit` is a
// time of `alarm_now()`; 0 means now + `recurrence`. `recurrence` 0: once.
int timer_add(__qx_timer_context* ctx, const char* name, const char* minor, time_t first_hit, int recurrence,
              timer_callback cb, void* cb_context);
// New time for an existing timer (a `minor` of "*" matches any). Unknown timers are ignored, result 0.
int timer_reset(__qx_timer_context* ctx, const char* name, const char* minor, time_t first_hit,
                int recurrence);
// 0, or -1 when unknown.
int timer_remove(__qx_timer_context* ctx, const char* name, const char* minor);
// The earliest time at which one is due, 0 without timers.
time_t timer_next(const __qx_timer_context* ctx);
// Fires what is due, at most once a second.
int timer_check(__qx_timer_context* ctx);
// The same at the given second; the clock of `timer_check` is outside, so that a test can step it.
int timer_check_at(__qx_timer_context* ctx, time_t now);
