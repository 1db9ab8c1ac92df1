// The TIMESTAMP of messages.
#pragma once

#include <time.h>

#include "messages/records_common.h"

// A date as it stands in messages.
inline MSG_TYPE_TIMESTAMP timestamp_of(const tm& date, int32_t nanoseconds) {
    MSG_TYPE_TIMESTAMP stamp;
    stamp.jjjj = static_cast<int16_t>(date.tm_year + 1900);
    stamp.mo = static_cast<int16_t>(date.tm_mon + 1);
    stamp.tt = static_cast<int16_t>(date.tm_mday);
    stamp.hh = static_cast<int16_t>(date.tm_hour);
    stamp.mi = static_cast<int16_t>(date.tm_min);
    stamp.ss = static_cast<int16_t>(date.tm_sec);
    stamp.ns = nanoseconds;
    return stamp;
}
// A moment as UTC, `nanoseconds` beside it.
MSG_TYPE_TIMESTAMP timestamp_utc(time_t seconds, int32_t nanoseconds = 0);
// Now as UTC.
MSG_TYPE_TIMESTAMP timestamp_now();
// A moment as local time.
MSG_TYPE_TIMESTAMP timestamp_local(time_t seconds);
// The moment that a UTC timestamp names; 0 for a zero one and one that is no date.
time_t timestamp_seconds(const MSG_TYPE_TIMESTAMP& stamp);
// The same for one that holds local time; `tm_isdst` counts as 0.
time_t timestamp_seconds_local(const MSG_TYPE_TIMESTAMP& stamp);
