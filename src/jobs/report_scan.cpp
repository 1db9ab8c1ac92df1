#include "jobs/report_scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

#include "base/descriptor.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "identity/accounts.h"
#include "identity/user_files.h"
#include "jobs/job_table.h"
#include "jobs/job_time.h"
#include "log/log.h"

namespace {

constexpr size_t line_limit = 2048;
constexpr size_t block_size = 65536;
constexpr size_t utc_date_distance = 9;  // from the 'U' of "UTC TIME" to its date
// Of a longer report its two ends are scanned, so much of each: the agent stands still meanwhile, and the
// job's user may make his report as long as he likes, also of holes.
constexpr off_t scan_end_size = off_t{64} << 20;

constexpr char end_info_text[] = "        Job beendet";

bool two_digits(std::string_view text, size_t at, int16_t* number) {
    if (at + 2 > text.size() || text[at] < '0' || text[at] > '9' || text[at + 1] < '0' ||
        text[at + 1] > '9') {
        return false;
    }
    *number = static_cast<int16_t>((text[at] - '0') * 10 + (text[at + 1] - '0'));
    return true;
}

// "dd.mm.yyyy / hh:mm:ss"; false and nothing changed for anything else.
bool read_date(std::string_view text, MSG_TYPE_TIMESTAMP* stamp) {
    MSG_TYPE_TIMESTAMP read{};
    int16_t century = 0;
    int16_t year = 0;
    if (!two_digits(text, 0, &read.tt) || !two_digits(text, 3, &read.mo) || !two_digits(text, 6, &century) ||
        !two_digits(text, 8, &year) || !two_digits(text, 13, &read.hh) || !two_digits(text, 16, &read.mi) ||
        !two_digits(text, 19, &read.ss)) {
        return false;
    }
    read.jjjj = static_cast<int16_t>(century * 100 + year);
    if (job_time_of(read) == 0) {
        return false;
    }
    *stamp = read;
    return true;
}

// The local date of a line that has no UTC date behind it.
bool read_local_date(std::string_view text, MSG_TYPE_TIMESTAMP* stamp) {
    MSG_TYPE_TIMESTAMP local_stamp{};
    if (!read_date(text, &local_stamp)) {
        return false;
    }
    tm local{};
    local.tm_year = local_stamp.jjjj - 1900;
    local.tm_mon = local_stamp.mo - 1;
    local.tm_mday = local_stamp.tt;
    local.tm_hour = local_stamp.hh;
    local.tm_min = local_stamp.mi;
    local.tm_sec = local_stamp.ss;
    local.tm_isdst = -1;
    *stamp = job_timestamp(qx_mktime(&local));
    return stamp->jjjj != 0;
}

// The text behind the first `mark`, or nothing.
bool behind(std::string_view line, std::string_view mark, std::string_view* rest) {
    const size_t at = line.find(mark);
    if (at == std::string_view::npos) {
        return false;
    }
    *rest = line.substr(at + mark.size());
    return true;
}

void set_stamp(JP_AREA* job, const MSG_TYPE_TIMESTAMP& stamp) {
    if (job->JP_reportFlag == JOB_REPORT_END) {
        job->JP_eTime = stamp;
        job->JP_eTime_t = job_time_of(stamp);
    } else if (job->JP_reportFlag == JOB_REPORT_START) {
        job->JP_sTime = stamp;
        job->JP_sTime_t = job_time_of(stamp);
    }
}

void take_job_line(JP_AREA* job, std::string_view line) {
    std::string_view rest;
    MSG_TYPE_TIMESTAMP stamp{};
    // "RESTART AT " holds "START AT ": a restart must not move the job's start.
    if (behind(line, "RESTART AT ", &rest)) {
        job->JP_reportFlag = JOB_REPORT_RESTART;
    } else if (behind(line, "START AT ", &rest)) {
        job->JP_reportFlag = JOB_REPORT_START;
    } else if (behind(line, "ENDED AT ", &rest)) {
        job->JP_reportFlag = JOB_REPORT_END;
    }
    if (!rest.empty() && read_local_date(rest, &stamp)) {
        set_stamp(job, stamp);
    }
    int pid = 0;
    if (behind(line, "ProcID:", &rest) &&
        std::from_chars(rest.data(), rest.data() + rest.size(), pid).ec == std::errc() && pid > 1) {
        job->akt_pid = static_cast<uint32_t>(pid);
        if (job->m_ppid == 0) {
            job->m_ppid = pid;
        }
    }
}

void take_file_line(JP_AREA* job, std::string_view line) {
    std::string_view rest;
    char login = 'Y';
    if (behind(line, "login check '", &rest) && !rest.empty()) {
        login = rest[0];
    }
    if (behind(line, "registered output file '", &rest)) {
        job_add_file(job, login, rest.substr(0, rest.find('\'')));
    }
}

// Lines of any length through one block; what is longer than the limit is cut.
struct line_source {
    int fd = -1;
    std::unique_ptr<char[]> block = std::make_unique<char[]>(block_size);
    size_t filled = 0;
    size_t at = 0;
    off_t left = 0;     // what is still to be read: a report that grows meanwhile must come to an end
    off_t jump_to = 0;  // where the scan goes on when `left` is used up; 0: it ends there
    off_t jump_left = 0;
    int error_number = 0;
    bool cut_seen = false;
    bool jumped = false;  // the next line may have begun in what was passed over
};

void plan_scan(line_source* source, off_t size) {
    source->left = size;
    if (size > 2 * scan_end_size) {
        source->left = scan_end_size;
        source->jump_to = size - scan_end_size;
        source->jump_left = scan_end_size;
    }
}

bool jump(line_source* source) {
    if (source->jump_to == 0 || lseek(source->fd, source->jump_to, SEEK_SET) < 0) {
        return false;
    }
    source->left = source->jump_left;
    source->jump_to = 0;
    source->jumped = true;
    return true;
}

bool fill_block(line_source* source) {
    ssize_t length = 0;
    const size_t wanted = static_cast<size_t>(std::min<off_t>(source->left, block_size));
    do {
        length = read(source->fd, source->block.get(), wanted);
    } while (length < 0 && errno == EINTR);
    source->left -= std::max<ssize_t>(length, 0);
    if (length < 0) {
        source->error_number = errno;
    }
    source->filled = length > 0 ? static_cast<size_t>(length) : 0;
    source->at = 0;
    return length > 0;
}

bool next_line(line_source* source, std::string* line) {
    line->clear();
    bool any = false;
    while (source->at < source->filled || fill_block(source)) {
        any = true;
        const char* begin = source->block.get() + source->at;
        const size_t left = source->filled - source->at;
        const char* end = static_cast<const char*>(memchr(begin, '\n', left));
        const size_t length = end == nullptr ? left : static_cast<size_t>(end - begin);
        const size_t room = line_limit - line->size();
        line->append(begin, std::min(length, room));
        source->cut_seen = source->cut_seen || length > room;
        source->at += length + (end == nullptr ? 0 : 1);
        if (end != nullptr) {
            break;
        }
    }
    if (!line->empty() && line->back() == '\r') {
        line->pop_back();
    }
    return any;
}

bool user_can_open(const JP_AREA* job, const char* path) {
    const char* user = job->jp_userName[0] != 0 ? job->jp_userName : job->JP_user;
    if (user[0] == 0) {
        return false;
    }
    qx7_error error;
    return qx_descriptor(Open_ReadEffUser(user, path, &error)).valid();
}

}  // namespace

bool job_add_file(JP_AREA* job, char login, std::string_view name) {
    if (name.empty() || job->jp_files.size() >= job_files_limit) {
        return false;
    }
    FLE_Elem file;
    file.fle_number = static_cast<short>(job->jp_files.size() + 1);
    file.fle_login = login;
    file.fle_name = std::string(name.substr(0, job_file_name_limit));
    job->jp_files.push_back(std::move(file));
    return true;
}

bool job_register_file(JP_AREA* job, char login, std::string_view name, bool once) {
    const std::string text(name.substr(0, job_file_name_limit));
    if (once) {
        for (const FLE_Elem& file : job->jp_files) {
            if (file.fle_name == text) {
                return true;
            }
        }
    }
    // The job chooses the mark: without this test it could hand out a file that its user may not read.
    if (login != 'Y' && !user_can_open(job, text.c_str())) {
        login = 'Y';
    }
    return job_add_file(job, login, text);
}

void ChkRprtRec(JP_AREA* job, std::string_view line) {
    if (line.starts_with("**  JOB ")) {
        take_job_line(job, line);
    }
    const size_t utc = line.find("UTC TIME");
    MSG_TYPE_TIMESTAMP stamp{};
    if (utc != std::string_view::npos && utc + utc_date_distance < line.size() &&
        read_date(line.substr(utc + utc_date_distance), &stamp)) {
        set_stamp(job, stamp);
    }
    std::string_view rest;
    if (line.starts_with("**  TEXT=\"") && behind(line, "RETCODE=", &rest)) {
        if (rest.starts_with('+')) {
            rest.remove_prefix(1);
        }
        int code = 0;
        if (std::from_chars(rest.data(), rest.data() + rest.size(), code).ec == std::errc()) {
            job->retCode = code;
        }
    }
    if (line.find("QX7 messenger '") != std::string_view::npos) {
        take_file_line(job, line);
    }
}

bool report_scan_file(const JP_AREA* job, JP_AREA* scan, qx7_error* error) {
    scan->m_ppid = job->m_ppid;
    scan->JP_reportFlag = JOB_REPORT_NONE;
    scan->retCode = -1;
    if (job->JP_jReport[0] == 0) {
        return false;
    }
    const qx_descriptor file(open_read_on_order(job->JP_jReport));
    if (!file.valid()) {
        file_error(error, "FileFOpen()", job->JP_jReport, errno);
        return false;
    }
    struct stat status;
    line_source source;
    source.fd = file.get();
    if (fstat(file.get(), &status) != 0) {
        source.error_number = errno;
    } else {
        plan_scan(&source, status.st_size);
    }
    std::string line;
    do {
        while (next_line(&source, &line)) {
            if (!source.jumped) {
                ChkRprtRec(scan, line);
            }
            source.jumped = false;
        }
    } while (source.error_number == 0 && jump(&source));
    if (source.error_number != 0) {
        __log(number_file_call, "%s",
              call_insert("FileReadText()", job->JP_jReport, source.error_number).c_str());
    }
    if (source.cut_seen) {
        __log(number_file_call, "FileReadText()|%.255s|%u|U_READ_TOLANG|", job->JP_jReport, 0U);
    }
    return true;
}

int ReadReport(JP_AREA* job, qx7_error* error) {
    JP_AREA scan;
    const bool opened = report_scan_file(job, &scan, error);
    job->retCode = -1;
    if (!opened) {
        return -1;
    }
    job->JP_reportFlag = scan.JP_reportFlag;
    for (const FLE_Elem& file : scan.jp_files) {
        job_register_file(job, file.fle_login, file.fle_name, true);
    }
    if (scan.akt_pid != 0) {
        job->akt_pid = scan.akt_pid;
    }
    if (job->m_ppid == 0) {
        job->m_ppid = scan.m_ppid;
    }
    if (scan.JP_eTime.jjjj == 0 || scan.retCode == -1) {
        return -1;
    }
    if (scan.JP_sTime_t != 0) {
        job->JP_sTime = scan.JP_sTime;
        job->JP_sTime_t = scan.JP_sTime_t;
    }
    job->JP_eTime = scan.JP_eTime;
    job->JP_eTime_t = scan.JP_eTime_t;
    job->retCode = scan.retCode;
    memset(job->infoText, ' ', sizeof job->infoText);
    memcpy(job->infoText, end_info_text, sizeof end_info_text - 1);
    job->JP_status = job->retCode != 0 ? JOB_STATUS_FAILED : JOB_STATUS_ENDED;
    job->JP_flag |= job_flag_end_taken;
    return std::max(1, job->m_ppid);
}
