#include "transfer/ftx/restart.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "base/error_text.h"
#include "base/file_data.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "transfer/ftx/interrupt.h"
#include "transfer/ftx/protocol.h"

namespace {

constexpr size_t prefix_piece = 262144;

int read_failed_error(const ftx_entry* ftx, const std::string& name, int error_number, qx7_error* err) {
    return qx_error_set(err, -1, error_number, number_transfer_read_failed, "%d|%s|errno=%d(%s)",
                        ftx->ftx_transfer_id, printable(name).c_str(), error_number,
                        error_text(error_number).c_str());
}

bool same_digest(const md5_context& running, const unsigned char digest[md5_size]) {
    md5_context copy = running;
    unsigned char found[md5_size];
    md5_final(&copy, found);
    return memcmp(found, digest, sizeof found) == 0;
}

}  // namespace

__ftx_restart_info ftx_restart_point(const ftx_entry* ftx, const ftx_elem* elem) {
    __ftx_restart_info point = {};
    point.rst_filepos = lseek(ftx->file.get(), 0, SEEK_CUR);
    if ((elem->ftxe_flag & FTXE_MD5) != 0) {
        md5_context copy = ftx->md5;
        md5_final(&copy, point.digest);
    }
    return point;
}

bool ftx_has_digest(const __ftx_restart_info& record) {
    return std::any_of(std::begin(record.digest), std::end(record.digest),
                       [](unsigned char byte) { return byte != 0; });
}

int64_t ftx_digest_prefix(ftx_entry* ftx, const ftx_elem* elem, int64_t length, qx7_error* err) {
    const int fd = ftx->file.get();
    const std::string& name = ftx->is_sender() ? elem->source_name : elem->destination_name;
    const std::unique_ptr<unsigned char[]> piece(new (std::nothrow) unsigned char[prefix_piece]);
    if (piece == nullptr) {
        return read_failed_error(ftx, name, ENOMEM, err);
    }
    if (lseek(fd, 0, SEEK_SET) != 0) {
        return read_failed_error(ftx, name, errno, err);
    }
    // A hint: without it the prefix is read all the same.
    posix_fadvise(fd, 0, length, POSIX_FADV_SEQUENTIAL);
    int64_t taken = 0;
    while (taken < length) {
        if (ftx_is_interrupted(ftx)) {
            return read_failed_error(ftx, name, ECANCELED, err);
        }
        const auto wanted = static_cast<size_t>(std::min<int64_t>(length - taken, prefix_piece));
        const ssize_t got = readn(fd, piece.get(), wanted);
        if (got < 0) {
            return read_failed_error(ftx, name, errno, err);
        }
        if (got == 0) {
            break;
        }
        md5_update(&ftx->md5, piece.get(), static_cast<size_t>(got));
        taken += got;
        ftx_tell_status_when_due(ftx);
    }
    return taken;
}

int check_fileConsistency(ftx_entry* ftx, ftx_elem* elem, const __ftx_restart_info& record, qx7_error* err) {
    qx_error_clear(err);
    const int64_t position = record.rst_filepos;
    if (position < 0) {
        return -1;
    }
    if ((elem->ftxe_flag & FTXE_MD5) != 0) {
        const int64_t taken = ftx_digest_prefix(ftx, elem, position, err);
        if (taken != position || !same_digest(ftx->md5, record.digest)) {
            return -1;
        }
    }
    return lseek(ftx->file.get(), position, SEEK_SET) == position ? 0 : -1;
}
