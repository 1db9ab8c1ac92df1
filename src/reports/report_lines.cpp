// How lines of a report become blocks.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/code_tables.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "log/log.h"
#include "reports/reports.h"

namespace {

constexpr std::string_view truncation_mark = "QX7:global report truncated";
constexpr int truncation_mark_room = 26;  // beside the mark's own length
constexpr int line_end_size = 2;
// So much of a cut line is passed over in one step. The agent does nothing else meanwhile, and the owner of
// the file may make a line of holes that is longer than any disk.
constexpr int64_t passed_over_limit = int64_t{256} << 20;

// A line as it goes into a block: through the code table, CR LF behind it.
void put_line(const REP_Area* area, unsigned char* place, std::string_view line) {
    memcpy(place, line.data(), line.size());
    if (area->translate) {
        AreaConv(place, line.size(), area->cCodeTab);
    }
    place[line.size()] = '\r';
    place[line.size() + 1] = '\n';
}

bool line_matches(REP_Area* area, std::string_view line) {
    if (area->cMatch.empty()) {
        return true;
    }
    area->pMatchRecord.assign(line);
    for (char& c : area->pMatchRecord) {
        c = ToUpperCase(c);
    }
    return MyStrMatch(area->pMatchRecord, area->cMatch) != 0;
}

bool line_limit_reached(const REP_Area* area, bool first) {
    if (area->lMaxRecords <= 0) {
        return false;
    }
    // The first block stops at the limit; later ones let one more line through. Servers count on both.
    return first ? area->llRecCount == area->lMaxRecords : area->llRecCount > area->lMaxRecords;
}

}  // namespace

void report_read_line(REP_Area* area, size_t size) {
    std::string_view record;
    bool cut = false;
    area->last_was_cut = false;
    if (area->line_too_long) {
        area->i4Errno = EFBIG;
        area->lLastRec = read_failed;
        area->line_in_hand = false;
        return;
    }
    const int result = text_reader_next_view(&area->pFile, size - 1, &record, &cut);
    if (result <= 0) {
        area->i4Errno = errno;
        area->lLastRec = result == 0 ? read_end_of_file : read_failed;
        area->line_in_hand = false;
        return;
    }
    area->i4Errno = 0;
    if (!cut && record.back() == '\n') {
        record.remove_suffix(1);
    }
    area->pLastRec = record;  // no copy: nothing is read while it is in hand
    area->line_in_hand = true;
    area->lLastRec = static_cast<int>(record.size());
    if (!cut && record.size() <= size - 2) {
        return;
    }
    area->last_was_cut = true;
    area->cut_record = record;
    area->pLastRec = area->cut_record;
    area->last_full = static_cast<int64_t>(record.size());
    while (cut) {  // the rest of the line is passed over
        if (area->last_full > passed_over_limit) {
            area->line_too_long = true;
            break;
        }
        const int rest = text_reader_next_view(&area->pFile, size_t{1} << 16, &record, &cut);
        if (rest <= 0) {
            break;
        }
        area->last_full += static_cast<int64_t>(record.size()) - (record.back() == '\n' ? 1 : 0);
    }
}

report_fill report_fill_block(REP_Area* area, unsigned char* block, int* length, size_t size,
                              report_stage stage) {
    const int64_t whole = stage == REPORT_AHEAD ? text_reader_whole_until(&area->pFile) : INT64_MAX;
    while (true) {
        if (!area->line_in_hand) {
            const bool at_limit = line_limit_reached(area, stage == REPORT_FIRST);
            if (stage == REPORT_AHEAD && (at_limit || area->pFile.position >= whole)) {
                return REPORT_FILL_PAUSE;
            }
            if (at_limit) {
                area->lRetCode = number_report_line_limit;
                area->cRetText = area->cFile + "|" + std::to_string(area->lMaxRecords) + "|";
                return REPORT_FILL_LIMIT;
            }
            report_read_line(area, size);
            if (!area->line_in_hand) {
                return area->lLastRec == read_end_of_file ? REPORT_FILL_END : REPORT_FILL_ERROR;
            }
            if (!line_matches(area, area->pLastRec)) {
                area->line_in_hand = false;
                continue;
            }
        }
        const int needed = area->lLastRec + line_end_size;
        if (*length + needed > area->i4Blksize) {
            return REPORT_FILL_FULL;
        }
        if (area->last_was_cut) {
            __log(number_report_line_cut, "%u|%lld|%lld|%d|", static_cast<unsigned>(area->iRepGet_ah_idnr),
                  static_cast<long long>(area->llRecCount + 1), static_cast<long long>(area->last_full),
                  area->lLastRec);
        }
        put_line(area, block + *length, area->pLastRec);
        *length += needed;
        area->llByteSend += needed;
        area->llRecCount += 1;
        area->line_in_hand = false;
    }
}

int create_lastRecBuf(REP_Area* area, unsigned char* block, int* length, qx7_error* error) {
    const auto fail = [&](const char* call) { return file_error(error, call, area->cFile, errno); };
    struct stat status;
    if (fstat(area->rep_fd.fd, &status) != 0) {
        return fail("my_lseek()");
    }
    const int64_t start = static_cast<int64_t>(status.st_size) - area->i4Blksize;
    if (start < 0) {
        errno = EINVAL;
        return fail("my_lseek()");
    }
    std::string text(static_cast<size_t>(area->i4Blksize), '\0');
    size_t got = 0;
    while (got < text.size()) {
        const ssize_t n = pread(area->rep_fd.fd, text.data() + got, text.size() - got,
                                static_cast<off_t>(start + static_cast<int64_t>(got)));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return qx_error_set(error, -1, errno, number_report_end_unreadable, "%s|%d|%s|",
                                area->cFile.c_str(), errno,
                                n < 0 ? error_text(errno).c_str() : "the file became shorter");
        }
        got += static_cast<size_t>(n);
    }
    area->llByteSend = area->rep_llByteSend;
    area->llRecCount = area->rep_llRecCount;

    const int room = area->i4Blksize - static_cast<int>(truncation_mark.size()) - truncation_mark_room;
    std::vector<std::string_view> lines;  // last one first
    std::string_view rest = text;
    if (rest.ends_with('\n')) {
        rest.remove_suffix(1);
    }
    int used = 0;
    while (true) {
        const size_t before = rest.rfind('\n');
        if (before == std::string_view::npos) {
            break;  // cut at the buffer's start
        }
        std::string_view line = rest.substr(before + 1);
        rest = rest.substr(0, before);
        if (!line_matches(area, line)) {
            continue;
        }
        if (used + static_cast<int>(line.size()) + line_end_size > room) {
            break;
        }
        used += static_cast<int>(line.size()) + line_end_size;
        lines.push_back(line);
    }
    lines.push_back(truncation_mark);
    *length = 0;
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        put_line(area, block + *length, *line);
        *length += static_cast<int>(line->size()) + line_end_size;
        area->llRecCount += 1;
    }
    area->llByteSend += *length;
    area->line_in_hand = false;
    area->lLastRec = read_end_of_file;
    return 0;
}
