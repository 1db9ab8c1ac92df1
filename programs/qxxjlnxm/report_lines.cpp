#include "report_lines.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "base/version.h"
#include "message.h"
#include "moment.h"

namespace {

// Room for the longest lines: a file's.
struct line_text {
    char text[768];
    size_t length = 0;
};

void put(line_text* line, std::string_view text) {
    const size_t length = std::min(text.size(), sizeof line->text - line->length);
    memcpy(line->text + line->length, text.data(), length);
    line->length += length;
}

// With zeros in front up to `width` digits. Not by printf, whose pages a call of the messenger needs for
// nothing else.
void put_number(line_text* line, int number, size_t width = 1) {
    char digits[16];
    const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    const auto length = static_cast<size_t>(end - digits);
    for (size_t at = length; at < width; ++at) {
        put(line, "0");
    }
    put(line, {digits, length});
}

void put_date(line_text* line, const tm& date) {
    put_number(line, date.tm_mday, 2);
    put(line, ".");
    put_number(line, date.tm_mon + 1, 2);
    put(line, ".");
    put_number(line, date.tm_year + 1900, 4);
    put(line, " / ");
    put_number(line, date.tm_hour, 2);
    put(line, ":");
    put_number(line, date.tm_min, 2);
    put(line, ":");
    put_number(line, date.tm_sec, 2);
}

void put_job(line_text* line, const request& order, const char* verb, time_t now) {
    tm local{};
    localtime_r(&now,
                &local);  // one thread and no fork: the lock of the programs that have them is not needed
    put(line, "**  JOB ");
    put_number(line, order.run);
    put(line, " ");
    put(line, verb);
    put(line, " AT ");
    put_date(line, local);
    put(line, " UTC TIME ");
    put_date(line, utc_date(now));
}

void put_process(line_text* line) {
    put(line, " ProcID:");
    put_number(line, static_cast<int>(getppid()));
}

void put_file(line_text* line, const request& order) {
    put(line, "QX7 messenger '");
    put(line, qx_release);
    put(line, "' login check '");
    put(line, {&order.login_check, 1});
    put(line, "' registered output file '");
    put(line, order.operands[0]);
    put(line, "'");
}

void put_lines(line_text* line, const request& order, time_t now) {
    switch (order.command) {
        case command_start:
            put_job(line, order, "START", now);
            put_process(line);
            break;
        case command_restart:
            put_job(line, order, "RESTART", now);
            break;
        case command_end:
            put_job(line, order, "ENDED", now);
            put_process(line);
            put(line, "\n**  TEXT=\"\" RETCODE=");
            put_number(line, order.retcode);
            break;
        default:
            put_file(line, order);
            break;
    }
}

bool has_lines(const request& order) {
    switch (order.command) {
        case command_start:
        case command_restart:
        case command_end:
            return true;
        case command_file:
            // A quote in the name would end it early for the reader.
            return order.operands[0].find('\'') == std::string_view::npos;
        default:
            return false;
    }
}

}  // namespace

void write_report_lines(const request& order, time_t now) {
    if (!has_lines(order)) {
        return;
    }
    line_text line;
    put(&line, "\n");  // ends whatever the job left open
    put_lines(&line, order, now);
    put(&line, "\n");
    // One write, so that the lines of two calls never mix.
    ssize_t written = 0;
    do {
        written = write(STDOUT_FILENO, line.text, line.length);
    } while (written < 0 && errno == EINTR);
    if (written != static_cast<ssize_t>(line.length)) {
        fprintf(stderr, "qxxjlnxm: the report lines were not written: %s\n", strerror(errno));
    }
}
