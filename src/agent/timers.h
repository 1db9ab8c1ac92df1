// Named timers. A timer that is due posts a record to the own loop; its callback runs there.
#pragma once

#include <ctime>

struct ccm_context_t;

// Runs on the main thread without any lock held; it may add, reset and remove timers.
using timer_callback = int (*)(void* context, char* name, char* minor);

// `trc_flag` points to the trace level that switches the timers' trace lines. 0, or -1 without memory.
int timer_open(void** ctx, ccm_context_t* ccm, const char* trc_flag);
// Frees all timers; a null context is no error.
int timer_close(void** ctx);
int timer_clearall(void* ctx);
// Adds the timer (`name`, `minor`), or updates the one that exists, which keeps its place. `first_hit` is a
// time of `qx_alarm_time()`; 0 means now + `recurrence`. `recurrence` 0: once.
int timer_add(void* ctx, const char* name, const char* minor, time_t first_hit, int recurrence,
              timer_callback cb, void* cb_context);
// New time for an existing timer (a `minor` of "*" matches any). Unknown timers are ignored, result 0.
int timer_reset(void* ctx, const char* name, const char* minor, time_t first_hit, int recurrence);
// 0, or -1 when unknown.
int timer_remove(void* ctx, const char* name, const char* minor);
// Fires what is due, at most once a second.
int timer_check(void* ctx);
// The same at the given second; the clock of `timer_check` is outside, so that a test can step it.
int timer_check_at(void* ctx, time_t now);
