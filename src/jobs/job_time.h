// The times of job messages: UTC.
#pragma once

#include <cstdint>
#include <ctime>

#include "messages/records_common.h"

// Seconds since 1970 as a TIMESTAMP in UTC; 0 seconds give the empty stamp.
MSG_TYPE_TIMESTAMP job_timestamp(time_t seconds, int32_t nanoseconds = 0);
// Both forms of now, with nanoseconds.
void job_time_now(time_t* seconds, MSG_TYPE_TIMESTAMP* stamp);
// Seconds since 1970 of a stamp in UTC; 0 when it is empty or no date.
time_t job_time_of(const MSG_TYPE_TIMESTAMP& stamp);
