#include "messages/timestamp.h"

#include <cstring>

#include "base/time.h"

namespace {

bool to_tm(const MSG_TYPE_TIMESTAMP& stamp, struct tm* parts) {
    if (stamp.jjjj < 1900 || stamp.mo < 1 || stamp.mo > 12 || stamp.tt < 1 || stamp.tt > 31) {
        return false;
    }
    memset(parts, 0, sizeof *parts);
    parts->tm_year = stamp.jjjj - 1900;
    parts->tm_mon = stamp.mo - 1;
    parts->tm_mday = stamp.tt;
    parts->tm_hour = stamp.hh;
    parts->tm_min = stamp.mi;
    parts->tm_sec = stamp.ss;
    return true;
}

}  // namespace

MSG_TYPE_TIMESTAMP timestamp_utc(time_t seconds, int32_t nanoseconds) {
    struct tm parts;
    if (!qx_gmtime(seconds, &parts)) {
        return MSG_TYPE_TIMESTAMP{};
    }
    return timestamp_of(parts, nanoseconds);
}

MSG_TYPE_TIMESTAMP timestamp_now() {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);  // cannot fail with this clock
    return timestamp_utc(now.tv_sec, static_cast<int32_t>(now.tv_nsec));
}

MSG_TYPE_TIMESTAMP timestamp_local(time_t seconds) {
    struct tm parts;
    if (!qx_localtime(seconds, &parts)) {
        return MSG_TYPE_TIMESTAMP{};
    }
    return timestamp_of(parts, 0);
}

time_t timestamp_seconds(const MSG_TYPE_TIMESTAMP& stamp) {
    struct tm parts;
    return to_tm(stamp, &parts) ? timegm(&parts) : 0;
}

time_t timestamp_seconds_local(const MSG_TYPE_TIMESTAMP& stamp) {
    struct tm parts;
    return to_tm(stamp, &parts) ? qx_mktime(&parts) : 0;
}
