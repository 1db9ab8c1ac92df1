#include "base/time.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "base/locks.h"
#include "base/text.h"

namespace {

// The C library's time zone lock is not made new in a forked child. All conversions of the program run under
// this one, which a fork takes, so that no other thread is inside the library's at that moment.
qx_recursive_lock time_zone_lock;
[[maybe_unused]] const bool time_zone_registered =
    (fork_lock_register_recursive(FORK_LOCK_TIME_ZONE, &time_zone_lock), true);

std::atomic<int64_t> clock_shift_ms = 0;

int64_t milliseconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

const int64_t monotonic_to_wall_ms = milliseconds(CLOCK_REALTIME) - milliseconds(CLOCK_MONOTONIC);

void fill(const struct tm& local, const struct tm& utc, DATUM_BUFF* out) {
    out->loc_year = local.tm_year + 1900;
    out->loc_month = local.tm_mon + 1;
    out->loc_day = local.tm_mday;
    out->loc_hour = local.tm_hour;
    out->loc_minute = local.tm_min;
    out->loc_second = local.tm_sec;
    out->loc_wday = local.tm_wday;
    out->loc_yday = local.tm_yday;
    out->loc_isdst = local.tm_isdst;
    out->utc_year = utc.tm_year + 1900;
    out->utc_month = utc.tm_mon + 1;
    out->utc_day = utc.tm_mday;
    out->utc_hour = utc.tm_hour;
    out->utc_minute = utc.tm_min;
    out->utc_second = utc.tm_sec;
}

std::string format_tm(const char* format, const struct tm& when) {
    char text[80];
    snprintf(text, sizeof text, format, when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour,
             when.tm_min, when.tm_sec);
    return text;
}

constexpr char compact_format[] = "%.4d%.2d%.2d%.2d%.2d%.2d";

}  // namespace

bool qx_localtime(time_t time, struct tm* out) {
    time_zone_lock.lock();
    // The same second is asked for again and again by log and trace.
    static time_t cached_time = -1;
    static struct tm cached;
    bool good = true;
    if (time != cached_time || time == -1) {
        good = localtime_r(&time, &cached) != nullptr;
        cached_time = good ? time : -1;
    }
    *out = cached;
    time_zone_lock.unlock();
    if (!good) {
        *out = {};
    }
    return good;
}

bool qx_gmtime(time_t time, struct tm* out) {
    time_zone_lock.lock();
    const bool good = gmtime_r(&time, out) != nullptr;
    time_zone_lock.unlock();
    if (!good) {
        *out = {};
    }
    return good;
}

time_t qx_mktime(struct tm* local) {
    time_zone_lock.lock();
    const time_t result = mktime(local);
    time_zone_lock.unlock();
    return result;
}

void GetDatumZeit2(const time_t* time, DATUM_BUFF* out) {
    *out = {};
    timespec now{};
    if (time == nullptr) {
        clock_gettime(CLOCK_REALTIME, &now);
    } else {
        now.tv_sec = *time;
    }
    struct tm local;
    struct tm utc;
    qx_localtime(now.tv_sec, &local);
    qx_gmtime(now.tv_sec, &utc);
    fill(local, utc, out);
    out->utc_seconds = now.tv_sec;
    out->millisecond = static_cast<int>(now.tv_nsec / 1000000);
    const std::string text = format_tm("%.4d%.2d%.2d/%.2d%.2d%.2d", local);
    if (time == nullptr) {
        snprintf(out->text, sizeof out->text, "%.24s.%.3d", text.c_str(), out->millisecond);
    } else {
        copy_text(out->text, text);
    }
}

void GetDatumZeit(DATUM_BUFF* out) {
    GetDatumZeit2(nullptr, out);
}

void GetDtChar2(char* out, size_t size) {
    DATUM_BUFF now;
    GetDatumZeit2(nullptr, &now);
    copy_text(out, size, now.text);
}

void GetDtChar(char* out, size_t size) {
    GetDtChar2(out, size);
}

void CreateCharUtcTime(time_t time, char* out, size_t size) {
    struct tm utc;
    qx_gmtime(time, &utc);
    copy_text(out, size, format_tm(compact_format, utc));
}

void ZUDATZT_Now(char* out, size_t size) {
    struct tm local;
    qx_localtime(::time(nullptr), &local);
    copy_text(out, size, format_tm(compact_format, local));
}

void ZUDATZT_NowUtc(char* out, size_t size) {
    CreateCharUtcTime(::time(nullptr), out, size);
}

void PutTime(time_t time, char* out, size_t size) {
    struct tm local;
    qx_localtime(time, &local);
    char text[80];
    snprintf(text, sizeof text, "%.2d.%.2d.%.4d %.2d:%.2d:%.2d", local.tm_mday, local.tm_mon + 1,
             local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec);
    copy_text(out, size, text);
}

int64_t alarm_now_ms() {
    return milliseconds(CLOCK_MONOTONIC) + monotonic_to_wall_ms +
           clock_shift_ms.load(std::memory_order_relaxed);
}

time_t alarm_now() {
    return static_cast<time_t>(alarm_now_ms() / 1000);
}

void alarm_clock_advance(time_t seconds) {
    clock_shift_ms.fetch_add(static_cast<int64_t>(seconds) * 1000, std::memory_order_relaxed);
}

bool is_timer_elapsed(time_t start, int seconds) {
    return start + seconds <= alarm_now();
}

uint64_t GetUsec() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

uint64_t GetElapsedTime(uint64_t since_usec) {
    return GetUsec() - since_usec;
}

std::string sec2hhmmss(long seconds) {
    char text[48];
    seconds = std::max(seconds, 0L);
    snprintf(text, sizeof text, "%.2ld:%.2ld:%.2ld", seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
    return text;
}

std::string sec2hhmmss2(long seconds) {
    seconds = std::max(seconds, 0L);
    return seconds < 86400 ? sec2hhmmss(seconds)
                           : std::to_string(seconds / 86400) + " " + sec2hhmmss(seconds);
}

std::string sec2hhmmss3(long seconds) {
    char text[48];
    seconds = std::max(seconds, 0L);
    snprintf(text, sizeof text, "%.3ld:%.2ld:%.2ld", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return text;
}
