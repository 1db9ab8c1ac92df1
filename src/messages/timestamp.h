// The TIMESTAMP of messages.
#pragma once

#include <time.h>

#include "messages/records_common.h"

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
