#include "jobs/job_time.h"

#include "base/time.h"

MSG_TYPE_TIMESTAMP job_timestamp(time_t seconds, int32_t nanoseconds) {
    MSG_TYPE_TIMESTAMP stamp{};
    tm utc{};
    if (seconds <= 0 || !qx_gmtime(seconds, &utc)) {
        return stamp;
    }
    stamp.jjjj = static_cast<int16_t>(utc.tm_year + 1900);
    stamp.mo = static_cast<int16_t>(utc.tm_mon + 1);
    stamp.tt = static_cast<int16_t>(utc.tm_mday);
    stamp.hh = static_cast<int16_t>(utc.tm_hour);
    stamp.mi = static_cast<int16_t>(utc.tm_min);
    stamp.ss = static_cast<int16_t>(utc.tm_sec > 59 ? 59 : utc.tm_sec);
    stamp.ns = nanoseconds;
    return stamp;
}

void job_time_now(time_t* seconds, MSG_TYPE_TIMESTAMP* stamp) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock and a valid address
    *seconds = now.tv_sec;
    *stamp = job_timestamp(now.tv_sec, static_cast<int32_t>(now.tv_nsec));
}

time_t job_time_of(const MSG_TYPE_TIMESTAMP& stamp) {
    if (stamp.jjjj < 1970 || stamp.mo < 1 || stamp.mo > 12 || stamp.tt < 1 || stamp.tt > 31 || stamp.hh < 0 ||
        stamp.hh > 24 || stamp.mi < 0 || stamp.mi > 59 || stamp.ss < 0 || stamp.ss > 60) {
        return 0;
    }
    tm utc{};
    utc.tm_year = stamp.jjjj - 1900;
    utc.tm_mon = stamp.mo - 1;
    utc.tm_mday = stamp.tt;
    utc.tm_hour = stamp.hh;
    utc.tm_min = stamp.mi;
    utc.tm_sec = stamp.ss;
    const time_t seconds = timegm(&utc);
    return seconds > 0 ? seconds : 0;
}
