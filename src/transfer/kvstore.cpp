// The file is at each moment a row of whole records, of which a crash can cut or leave out only the last; the
// index holds the header of each live key as it stands in the file. A value that fits the room of its record
// is written over it, header and value in one call, where a crash may mix the two values but not the row. A
// longer one is appended first and the old record marked deleted then; of two records of one key the load
// takes the first and marks the other, so that such a `put` is done or was never begun. Records are never
// moved and room is never given back.
//
// The load follows the lengths from header to header. A record that reaches behind the end of the file is
// what a crash left and is cut off, unless another record's header can be found behind its own: then its
// length is what is wrong, cutting would lose the others, and the store is refused.
#include "transfer/kvstore.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <vector>

#include "base/error_text.h"
#include "base/message_numbers.h"

namespace {

constexpr int64_t header_size = sizeof(__kvstore_record);
constexpr char mark[4] = {'%', 'K', 'V', 'R'};
constexpr int lock_tries = 100;
constexpr long lock_pause = 100'000'000;  // nanoseconds
constexpr size_t load_piece = size_t{1} << 18;

int callFailed(const kvstore* db, const char* what, qx7_error* err) {
    return file_error(err, what, db->db_filename, errno);
}

int wrongMark(const kvstore* db, const __kvstore_record& header, qx7_error* err) {
    char text[9];
    for (int i = 0; i < 8; ++i) {  // a damaged file may hold anything; only text goes into a log
        const char c = reinterpret_cast<const char*>(&header)[i];
        text[i] = c >= ' ' && c < 127 && c != '|' ? c : '.';
    }
    text[8] = 0;
    return qx_error_set(err, -1, 0, number_store_damaged, "%s|KVSR EYEC('%8.8s') wrong",
                        db->db_filename.c_str(), text);
}

// Whole transfer of pieces, which it uses up, at a place of the file.
bool writeParts(int fd, int64_t offset, std::span<iovec> parts) {
    while (!parts.empty()) {
        const ssize_t n = pwritev(fd, parts.data(), static_cast<int>(parts.size()), offset);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        offset += n;
        auto left = static_cast<size_t>(n);
        while (!parts.empty() && left >= parts.front().iov_len) {
            left -= parts.front().iov_len;
            parts = parts.subspan(1);
        }
        if (!parts.empty()) {
            parts.front().iov_base = static_cast<char*>(parts.front().iov_base) + left;
            parts.front().iov_len -= left;
        }
    }
    return true;
}

bool writeAt(int fd, const __kvstore_record& header, const void* value, size_t len) {
    iovec parts[] = {{const_cast<__kvstore_record*>(&header), sizeof header},
                     {const_cast<void*>(value), len}};
    return writeParts(fd, header.offset, parts);
}

bool writeValue(int fd, const __kvstore_record& header, const void* value, size_t len) {
    iovec parts[] = {{const_cast<void*>(value), len}};
    return writeParts(fd, header.offset + header_size, parts);
}

// Reads as much as there is. -1 on failure.
ssize_t readAt(int fd, int64_t offset, void* to, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n =
            pread(fd, static_cast<char*>(to) + done, size - done, offset + static_cast<int64_t>(done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n < 0 ? -1 : static_cast<ssize_t>(done);
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

// A window on the file, so that short records do not cost a call each.
struct Window {
    int fd;
    std::vector<char> bytes = std::vector<char>(load_piece);
    int64_t start = 0;
    int64_t filled = 0;

    // Bytes of the header at `offset`; fewer at the end of the file; -1 on failure.
    ssize_t header(int64_t offset, __kvstore_record* header) {
        if (offset < start || offset + header_size > start + filled) {
            const ssize_t n = readAt(fd, offset, bytes.data(), bytes.size());
            if (n < 0) {
                return -1;
            }
            start = offset;
            filled = n;
        }
        const int64_t there = std::min(header_size, start + filled - offset);
        memset(header, 0, sizeof *header);
        memcpy(header, bytes.data() + (offset - start), static_cast<size_t>(there));
        return there;
    }
};

bool wholeMark(const __kvstore_record& header, ssize_t there) {
    return memcmp(header.eyec, mark, std::min<size_t>(sizeof mark, static_cast<size_t>(there))) == 0;
}

// What a record that is all there must look like.
bool plausible(const __kvstore_record& header, int64_t position) {
    return memchr(header.key, 0, sizeof header.key) != nullptr && header.len >= 0 && header.value_len >= 0 &&
           header.value_len <= header.len && header.offset == position &&
           header.len <= INT64_MAX / 2 - position;
}

int markDeleted(kvstore* db, __kvstore_record header, qx7_error* err) {
    header.flag |= kvstore_deleted;
    return writeAt(db->db_fd, header, nullptr, 0) ? 0 : callFailed(db, "kvs_delete[lseek()/write()]", err);
}

// Whether a record begins anywhere behind `position`. 1 or 0, -1 on failure.
int recordBehind(int fd, int64_t position, int64_t size) {
    std::vector<char> bytes(load_piece);
    while (size - position >= header_size) {
        const ssize_t n = readAt(fd, position, bytes.data(), bytes.size());
        if (n < header_size) {
            return n < 0 ? -1 : 0;
        }
        const std::string_view piece(bytes.data(), static_cast<size_t>(n));
        const size_t last = piece.size() - header_size;
        for (size_t at = piece.find({mark, sizeof mark}); at <= last;
             at = piece.find({mark, sizeof mark}, at + 1)) {
            __kvstore_record header;
            memcpy(&header, &piece[at], sizeof header);
            if (plausible(header, position + static_cast<int64_t>(at))) {
                return 1;
            }
        }
        // The next piece repeats what may hold the start of a header.
        position += n - (header_size - 1);
    }
    return 0;
}

bool is_wanted(const kvstore* db, std::string_view key) {
    return db->only.empty() || std::find(db->only.begin(), db->only.end(), key) != db->only.end();
}

int kvstore_loadkeys(kvstore* db, int mode, qx7_error* err) {
    struct stat facts {};
    if (fstat(db->db_fd, &facts) != 0) {
        return callFailed(db, "read()", err);
    }
    const int64_t size = facts.st_size;
    Window window{db->db_fd};
    int64_t position = 0;
    while (position < size) {
        __kvstore_record header;
        const ssize_t there = window.header(position, &header);
        if (there < 0) {
            return callFailed(db, "read()", err);
        }
        if (!wholeMark(header, there) || (there == header_size && !plausible(header, position))) {
            return wrongMark(db, header, err);
        }
        // A crash cuts only the last record. One that seems to reach over others has a wrong length.
        if (there < header_size || position + header_size + header.len > size) {
            const int behind = recordBehind(db->db_fd, position + header_size, size);
            if (behind != 0) {
                return behind < 0 ? callFailed(db, "read()", err) : wrongMark(db, header, err);
            }
            if (mode != kvstore_peek && ftruncate(db->db_fd, position) != 0) {
                return callFailed(db, "read()", err);
            }
            break;
        }
        const bool counts = (header.flag & kvstore_deleted) == 0 && is_wanted(db, header.key);
        // The first of equal keys stands. The other goes, or it would come back when the first is deleted.
        if (counts && !db->bt_root.try_emplace(header.key, header).second && mode != kvstore_peek &&
            markDeleted(db, header, err) != 0) {
            return -1;
        }
        position += header_size + header.len;
    }
    db->file_end = position;
    return 0;
}

bool lockFile(int fd) {
    for (int i = 0; i < lock_tries; ++i) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
        const timespec pause{0, lock_pause};
        nanosleep(&pause, nullptr);
    }
    errno = EAGAIN;
    return false;
}

// Only a file that nobody else can have placed here.
bool ownFile(int fd, int mode) {
    struct stat facts {};
    if (fstat(fd, &facts) != 0) {
        return false;
    }
    const bool any_owner = mode == kvstore_any_owner && geteuid() == 0;
    if (!S_ISREG(facts.st_mode) || facts.st_nlink != 1 || (!any_owner && facts.st_uid != geteuid())) {
        errno = EPERM;
        return false;
    }
    return true;
}

int append(kvstore* db, std::string_view key, const void* value, size_t len, __kvstore_record* header,
           qx7_error* err) {
    *header = {};
    memcpy(header->eyec, mark, sizeof mark);
    memcpy(header->key, key.data(), key.size());
    header->len = static_cast<int64_t>(len);
    header->value_len = header->len;
    header->offset = db->file_end;
    if (!writeAt(db->db_fd, *header, value, len)) {
        const int result = callFailed(db, "kvs_append[lseek()/write()]", err);
        if (ftruncate(db->db_fd, db->file_end) != 0) {
            return result;  // the next load cuts off what was begun
        }
        return result;
    }
    db->file_end += header_size + header->len;
    return 0;
}

}  // namespace

__kvstore_database::~__kvstore_database() {
    if (db_fd >= 0) {
        close(db_fd);  // nothing is buffered that could fail
    }
}

int kvstore_open(kvstore* db, const char* filename, int mode, qx7_error* err) {
    kvstore_close(db, nullptr);
    db->db_filename = filename;
    const int create = mode == kvstore_create || mode == kvstore_empty ? O_CREAT : 0;
    db->db_fd = open(filename, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | create, 0600);
    if (db->db_fd < 0) {
        return callFailed(db, "open()", err);
    }
    if (!ownFile(db->db_fd, mode) || (mode != kvstore_peek && !lockFile(db->db_fd)) ||
        (mode == kvstore_empty && ftruncate(db->db_fd, 0) != 0)) {
        callFailed(db, "open()", err);
        kvstore_close(db, nullptr);
        return -1;
    }
    if (kvstore_loadkeys(db, mode, err) != 0) {
        kvstore_close(db, nullptr);
        return -1;
    }
    return 0;
}

int64_t kvstore_get(kvstore* db, std::string_view key, void* value, size_t* len, qx7_error* err) {
    const auto found = db->bt_root.find(key);
    if (found == db->bt_root.end()) {
        return 0;
    }
    const __kvstore_record& header = found->second;
    const auto size = static_cast<size_t>(header.value_len);
    if (size > *len) {
        return qx_error_set(err, -1, ERANGE, number_store_key, "key: %s", std::string(key).c_str());
    }
    const ssize_t n = readAt(db->db_fd, header.offset + header_size, value, size);
    if (n < 0 || static_cast<size_t>(n) != size) {
        errno = n < 0 ? errno : EIO;
        return callFailed(db, "kvs_get[lseek()/read()]", err);
    }
    *len = size;
    return header.value_len;
}

int kvstore_put(kvstore* db, std::string_view key, const void* value, size_t len, qx7_error* err) {
    if (key.empty() || key.size() >= kvstore_key_size || key.find('\0') != std::string_view::npos) {
        errno = ENAMETOOLONG;
        return callFailed(db, "kvs_append[lseek()/write()]", err);
    }
    const auto found = db->bt_root.find(key);
    if (found != db->bt_root.end() && found->second.len >= static_cast<int64_t>(len)) {
        __kvstore_record header = found->second;
        header.value_len = static_cast<int64_t>(len);
        // Without its header a value does not count.
        if (found->second.value_len == 0 && !writeValue(db->db_fd, header, value, len)) {
            return callFailed(db, "kvs_update[lseek()/write()]", err);
        }
        if (!writeAt(db->db_fd, header, value, len)) {
            return callFailed(db, "kvs_update[lseek()/write()]", err);
        }
        found->second = header;
        return 0;
    }
    // The new record comes first: after a crash in between, the old value still stands, as the first of two.
    __kvstore_record header;
    if (append(db, key, value, len, &header, err) != 0) {
        return -1;
    }
    if (found == db->bt_root.end()) {
        db->bt_root.emplace(key, header);
        return 0;
    }
    const int result = markDeleted(db, found->second, err);
    if (result == 0) {
        found->second = header;
    }
    return result;
}

int kvstore_delete(kvstore* db, std::string_view key, qx7_error* err) {
    const auto found = db->bt_root.find(key);
    if (found == db->bt_root.end()) {
        return 0;
    }
    const int result = markDeleted(db, found->second, err);
    if (result == 0) {
        db->bt_root.erase(found);
    }
    return result;
}

int kvstore_close(kvstore* db, qx7_error* err) {
    db->bt_root.clear();
    db->file_end = 0;
    const int fd = db->db_fd;
    db->db_fd = -1;
    return fd < 0 || close(fd) == 0 ? 0 : callFailed(db, "close()", err);
}
