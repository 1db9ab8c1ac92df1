#include "transfer/legacy/source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/code_tables.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "identity/rights.h"
#include "identity/switch_user.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "transfer/ftx/module.h"

namespace {

constexpr char made_up_name[] = "qx7_testdata_";
constexpr int64_t megabyte = 1048576;
constexpr int64_t made_up_max = 1048576;  // megabytes
constexpr size_t noise_size = 32768;

const unsigned char* noise() {
    static const auto bytes = [] {
        std::array<unsigned char, noise_size> made;
        for (unsigned char& byte : made) {
            byte = static_cast<unsigned char>(rand());
        }
        return made;
    }();
    return bytes.data();
}

int complete_name(FT_AREA* area, qx7_error* error) {
    effective_user as(area->user(), error);
    if (!as.ok()) {
        return ft_fail(area, error->qx_msgnr, error->qx_msgInsert);
    }
    char path[4096];
    errno = 0;
    if (GetFilePfad(area->orig_file.c_str(), area->home.c_str(), path, sizeof path) != 0) {
        return as.finish(ft_call_failed(area, "GetFilePfad", area->orig_file, errno), error);
    }
    area->file = path;
    return as.finish(0, error);
}

// What stands under the name: a regular file, or a link to whatever.
int look_at(FT_AREA* area, bool* link, qx7_error* error) {
    effective_user as(area->user(), error);
    if (!as.ok()) {
        return ft_fail(area, error->qx_msgnr, error->qx_msgInsert);
    }
    struct stat found;
    if (lstat(area->file.c_str(), &found) != 0) {
        return as.finish(ft_call_failed(area, "stat", area->file, errno), error);
    }
    *link = S_ISLNK(found.st_mode);
    if (!S_ISREG(found.st_mode) && !*link) {
        return as.finish(ft_fail(area, number_legacy_no_regular_file, area->file + "|"), error);
    }
    return as.finish(0, error);
}

int check_access(FT_AREA* area, bool link) {
    if (link && !ft_config().link_files) {
        return 0;
    }
    std::string text;
    const int authority = area->Userid.empty() ? 0 : 1;
    if (ReadFileAuthority(area->user(), area->file.c_str(), authority, nullptr, &text) == 1) {
        return 0;
    }
    return ft_fail(area, number_legacy_no_access, area->file + "|");
}

// Whoever gave no login gets what nobody else laid there.
int open_file(FT_AREA* area) {
    if (area->Userid.empty() && !ft_config().link_files) {
        area->source.file.reset(open_read_on_order(area->file.c_str()));
        return area->source.file.valid() ? 0 : errno;
    }
    qx7_error error;
    area->source.file.reset(Open_ReadEffUser(area->user(), area->file.c_str(), &error));
    return area->source.file.valid() ? 0 : error.qx_errno;
}

// A performance test needs no more of the file than that it can be there.
bool take_made_up(FT_AREA* area) {
    const std::string_view name = path_file_name(area->file);
    int64_t megabytes = 0;
    if (!ftx_glb().fgx_Performance_Test || !name.starts_with(made_up_name) ||
        !parse_number(name.substr(strlen(made_up_name)), 1, made_up_max, &megabytes)) {
        return false;
    }
    area->type = FT_BINARY;
    area->flagResume = FT_NO_RESUME;
    area->source.made_up = megabytes * megabyte;
    qx7_error error;
    const int fd = Open_AppendEffUser(area->user(), area->file.c_str(), 0644, &error);
    if (fd < 0) {
        ft_call_failed(area, "FileFOpen()", area->file, error.qx_errno);
    }
    area->source.file.reset(fd);
    return true;
}

int read_failed_at(FT_AREA* area, int error_number) {
    area->status = FT_DATA_ERROR;
    return ft_call_failed(area, "fgets/fread", area->file, error_number);
}

// The next bytes of the file, or of the test's stream. -1 with errno.
ssize_t read_block(ft_source* source, char* buffer, size_t size) {
    ssize_t length;
    if (source->made_up >= 0) {
        const int64_t left = source->made_up - source->position;
        length = static_cast<ssize_t>(std::min({static_cast<int64_t>(size), left, int64_t{noise_size}}));
        memcpy(buffer, noise(), static_cast<size_t>(length));
    } else {
        do {
            length = pread(source->file.get(), buffer, size, source->position);
        } while (length < 0 && errno == EINTR);
    }
    source->position += std::max<ssize_t>(length, 0);
    return length;
}

enum next_result { NEXT_RECORD, NEXT_END, NEXT_FAILED };

next_result next_line(ft_source* source, std::string_view* record) {
    bool cut = false;
    errno = 0;
    if (text_reader_next_view(&source->lines, ft_line_max + 1, record, &cut) <= 0) {
        return errno == read_end_of_file || errno == 0 ? NEXT_END : NEXT_FAILED;
    }
    source->last_line_open = !record->ends_with('\n');
    if (!source->last_line_open) {
        record->remove_suffix(1);
    }
    return NEXT_RECORD;
}

next_result next_fixed(FT_AREA* area, char* buffer, size_t size, std::string_view* record) {
    size_t filled = 0;
    const size_t wanted = std::min(area->recLen, size);
    while (filled < wanted) {
        const ssize_t length = read_block(&area->source, buffer + filled, wanted - filled);
        if (length < 0) {
            return NEXT_FAILED;
        }
        if (length == 0) {
            break;
        }
        filled += static_cast<size_t>(length);
    }
    *record = {buffer, filled};
    return filled == 0 ? NEXT_END : NEXT_RECORD;
}

// One record without its line end. -1 at the end, and with the area's status when it goes no further.
int read_record(FT_AREA* area, char* buffer, size_t size) {
    std::string_view record;
    const next_result next =
        area->recLen > 0 ? next_fixed(area, buffer, size, &record) : next_line(&area->source, &record);
    if (next == NEXT_FAILED) {
        return read_failed_at(area, errno);
    }
    if (next == NEXT_END) {
        return -1;
    }
    if (area->maxrecords > 0 && area->recCount >= area->maxrecords) {
        area->status = FT_MAX_RECORDS;
        return -1;
    }
    if (record.size() > std::min(ft_line_max, size)) {
        area->status = FT_LINE_TOO_LONG;
        return -1;
    }
    if (area->separate == FT_LINE_STRIP_CR && record.ends_with('\r')) {
        record.remove_suffix(1);
    }
    memmove(buffer, record.data(), record.size());
    AreaConv(buffer, record.size(), area->code_table.data());
    area->transferedBytes += static_cast<int64_t>(record.size()) + 2;
    ++area->recCount;
    return static_cast<int>(record.size());
}

int skip_records(FT_AREA* area, int64_t records) {
    const auto buffer = std::make_unique<char[]>(ft_line_max);
    while (records-- > 0) {
        if (read_record(area, buffer.get(), ft_line_max) < 0) {
            return EINVAL;
        }
    }
    return 0;
}

int open_compressor(FT_AREA* area) {
    const int id = area->compress == FT_PACKED   ? int{compress_default}
                   : area->compress == FT_STRONG ? int{compress_strong}
                                                 : int{compress_none};
    CompressParameter parameters;
    parameters.strongBuf = static_cast<unsigned>(std::max(ftx_glb().ft_compress_strong, 0));
    const int flags = area->text() ? compress_record | compress_boundaries : 0;
    area->compressor =
        csOpen(area, id, flags, ReadForCompress, MyCsSize, MyCsReset, &parameters, area->Used, &area->cmpMsg);
    if (area->compressor == nullptr || area->compress != FT_PLAIN) {
        return area->cmpMsg.code;
    }
    // A stream that is not compressed goes without its header.
    char header[2];
    for (int filled = 0; filled < 2;) {
        const int length = csRead(area->compressor, header + filled, 2 - filled, &area->cmpMsg);
        if (length <= 0) {
            return area->cmpMsg.code;
        }
        filled += length;
    }
    return 0;
}

}  // namespace

int FT_SendOpen(FT_AREA* area) {
    qx7_error error;
    if (complete_name(area, &error) != 0) {
        return -1;
    }
    if (take_made_up(area)) {
        area->fileSize = area->source.made_up;
        return area->Result == 0 ? 0 : -1;
    }
    bool link = false;
    if (look_at(area, &link, &error) != 0 || check_access(area, link) != 0) {
        return -1;
    }
    __log(number_file_sent, "%d|%s|", area->transfer_id, printable(area->file).c_str());
    const int failed = open_file(area);
    if (failed != 0 || fstat(area->source.file.get(), &area->source.opened) != 0) {
        return ft_call_failed(area, "FileFOpen()", area->file, failed != 0 ? failed : errno);
    }
    area->fileSize = area->source.opened.st_size;
    return 0;
}

int source_start(FT_AREA* area, int64_t bytes, int64_t records) {
    ft_source& source = area->source;
    csClose(area->compressor);
    area->compressor = nullptr;
    area->transferedBytes = area->recCount = 0;
    area->resumed_bytes = area->resumed_records = 0;
    area->Used[0] = area->Used[1] = 0;
    source.last_line_open = false;
    source.position = 0;
    text_reader_open(&source.lines, source.file.get(), TEXT_CODE_NORMAL, 0);
    if (area->text()) {
        if (skip_records(area, records) != 0) {
            return ft_fail(area, number_legacy_restart_refused, "");
        }
    } else {
        if (bytes > area->fileSize) {
            return ft_fail(area, number_legacy_restart_refused, "");
        }
        source.position = area->transferedBytes = bytes;
    }
    area->resumed_bytes = area->transferedBytes;
    area->resumed_records = area->recCount;
    if (open_compressor(area) != 0) {
        return ft_fail(area, area->cmpMsg.code, area->cmpMsg.text);
    }
    return 0;
}

void source_close(FT_AREA* area) {
    area->source.file.reset();
    area->source.lines = {};
    csClose(area->compressor);
    area->compressor = nullptr;
}

int source_erase(FT_AREA* area, int* error_number) {
    const struct stat& opened = area->source.opened;
    struct stat now;
    qx7_error error;
    *error_number = 0;
    if (ft_config().remove_check && !area->Userid.empty() &&
        CheckFileAccess(area->file.c_str(), area->user(), FILE_ACCESS_REMOVE, nullptr) == 0) {
        *error_number = EACCES;
        return -1;
    }
    effective_user as(area->user(), &error);
    if (!as.ok()) {
        *error_number = error.qx_errno;
        return -1;
    }
    if (opened.st_ino == 0 || lstat(area->file.c_str(), &now) != 0 || now.st_ino != opened.st_ino ||
        now.st_dev != opened.st_dev || now.st_size != opened.st_size ||
        now.st_mtim.tv_sec != opened.st_mtim.tv_sec || now.st_mtim.tv_nsec != opened.st_mtim.tv_nsec) {
        *error_number = ESTALE;
        return as.finish(-1, &error);
    }
    const int removed =
        area->Userid.empty() ? remove_on_order(area->file.c_str()) : FileRemove(area->file.c_str());
    if (removed != 0) {
        *error_number = errno;
    }
    return as.finish(removed, &error);
}

int ReadForCompress(void* handle, char* buffer, int size, int mode, ErrMsg*) {
    FT_AREA* area = static_cast<FT_AREA*>(handle);
    if (mode != 0) {
        return area->status == FT_NORMAL ? read_record(area, buffer, static_cast<size_t>(size)) : -1;
    }
    if (area->status != FT_NORMAL) {
        return 0;
    }
    const ssize_t length = read_block(&area->source, buffer, static_cast<size_t>(size));
    if (length < 0) {
        read_failed_at(area, errno);
        return 0;
    }
    area->transferedBytes += length;
    return static_cast<int>(length);
}

int MyCsSize(void* handle, long* size, ErrMsg*) {
    const FT_AREA* area = static_cast<FT_AREA*>(handle);
    *size = area->fileSize - (area->text() ? 0 : area->resumed_bytes);
    return 0;
}

int MyCsReset(void*, ErrMsg*) {
    return 0;
}
