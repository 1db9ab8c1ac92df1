// Time: stamps as text and structure, and the clock of alarms and timers.
#pragma once

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>

// One moment, local and UTC, with the stamp "%.4d%.2d%.2d/%.2d%.2d%.2d.%.3d" of the local time.
struct DATUM_BUFF {
    char text[32];
    int loc_year, loc_month, loc_day, loc_hour, loc_minute, loc_second;
    int loc_wday, loc_yday, loc_isdst;
    int utc_year, utc_month, utc_day, utc_hour, utc_minute, utc_second;
    int millisecond;
    time_t utc_seconds;
};

// A null time: now, with milliseconds; a given time: the text has no milliseconds. Any thread.
void GetDatumZeit2(const time_t* time, DATUM_BUFF* out);
void GetDatumZeit(DATUM_BUFF* out);
// The stamp of now in local time with milliseconds; at least 24 bytes of room, cut otherwise.
void GetDtChar2(char* out, size_t size);
void GetDtChar(char* out, size_t size);
// "%04d%02d%02d%02d%02d%02d" of a moment in UTC.
void CreateCharUtcTime(time_t time, char* out, size_t size);
// 14 digits, year to second, local and UTC.
void ZUDATZT_Now(char* out, size_t size);
void ZUDATZT_NowUtc(char* out, size_t size);
// "DD.MM.YYYY HH:MM:SS" in local time.
void PutTime(time_t time, char* out, size_t size);
// Thread-safe and fork-safe conversions of this program; nobody calls localtime_r or mktime directly.
bool qx_localtime(time_t time, struct tm* out);
bool qx_gmtime(time_t time, struct tm* out);
time_t qx_mktime(struct tm* local);

// Now in seconds for alarms and timers: the wall clock at program start plus what the monotonic clock went
// on. Compare alarm times only with this; stamps that people or peers read use time().
time_t alarm_now();
// The same in milliseconds.
int64_t alarm_now_ms();
// For tests: lets the alarm clock jump forward.
void alarm_clock_advance(time_t seconds);
// True when `seconds` have passed since `start` on the alarm clock.
bool is_timer_elapsed(time_t start, int seconds);

// Microseconds of the monotonic clock, and what passed since then in microseconds.
uint64_t GetUsec();
uint64_t GetElapsedTime(uint64_t since_usec);

// "HH:MM:SS"; the second with days in front when there are any ("D HH:MM:SS"), the third as "HHH:MM:SS"
// without limit.
std::string sec2hhmmss(long seconds);
std::string sec2hhmmss2(long seconds);
std::string sec2hhmmss3(long seconds);
