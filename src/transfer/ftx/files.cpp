#include "transfer/ftx/files.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "base/file_data.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "transfer/ftx/entry.h"

namespace {

// Neither waits for a writer of a pipe nor takes a terminal: what is opened may be anything until it is looked
// at.
constexpr int careful = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr mode_t file_mode = 0666;  // less the umask
constexpr size_t compared_piece = 32768;

// So few go to the disk one by one, without waiting for what others write to the same file system.
constexpr size_t many_files = 8;

// Whether a sync of the file system is one of each of its files, down to the disk. Others may send their servers
// less than with fsync.
bool syncs_whole(int fd) {
    constexpr decltype(statfs::f_type) known[] = {EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC, BTRFS_SUPER_MAGIC,
                                                  TMPFS_MAGIC};
    struct statfs status;
    return fstatfs(fd, &status) == 0 &&
           std::find(std::begin(known), std::end(known), status.f_type) != std::end(known);
}

// Which device is on the disk now; 0 when that failed.
dev_t sync_file_system(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && syncfs(fd) == 0 ? status.st_dev : 0;
}

int give_up(int fd, int error_number) {
    close(fd);
    errno = error_number;
    return -1;
}

// The descriptor when it is a regular file, otherwise closed.
int regular_only(int fd, struct stat* status) {
    if (fd < 0) {
        return -1;
    }
    if (fstat(fd, status) != 0) {
        return give_up(fd, errno);
    }
    if (!S_ISREG(status->st_mode)) {
        return give_up(fd, S_ISDIR(status->st_mode) ? EISDIR : EINVAL);
    }
    return fd;
}

// Asks once for each file system.
bool is_made_up(int fd, dev_t device) {
    static dev_t good_device = 0;
    if (device == good_device) {
        return false;
    }
    if (is_kernel_file(fd)) {
        return true;
    }
    good_device = device;
    return false;
}

bool same_bytes(int one, int other) {
    char pieces[2][compared_piece];
    for (;;) {
        const ssize_t got = readn(one, pieces[0], compared_piece);
        if (got < 0 || readn(other, pieces[1], compared_piece) != got ||
            memcmp(pieces[0], pieces[1], static_cast<size_t>(got)) != 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
    }
}

}  // namespace

int FTX_openFileRead(int folder, const char* name, bool links, struct stat* status) {
    const int fd = regular_only(openat(folder, name, O_RDONLY | careful | (links ? 0 : O_NOFOLLOW)), status);
    if (fd >= 0 && is_made_up(fd, status->st_dev)) {
        return give_up(fd, EACCES);
    }
    return fd;
}

int FTX_openFileWrite(int folder, const char* name, bool only_new) {
    constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | careful;
    if (only_new) {
        return openat(folder, name, flags | O_EXCL, file_mode);
    }
    struct stat status;
    const int fd = regular_only(openat(folder, name, flags, file_mode), &status);
    if (fd >= 0 && status.st_size != 0 && ftruncate(fd, 0) != 0) {
        return give_up(fd, errno);
    }
    return fd;
}

int FTX_openFileReadWrite(int folder, const char* name) {
    struct stat status;
    return regular_only(openat(folder, name, O_RDWR | O_NOFOLLOW | careful), &status);
}

int FTX_openFileAppend(int folder, const char* name, bool reading) {
    const int flags = (reading ? O_RDWR : O_WRONLY) | O_APPEND | O_NOFOLLOW | careful;
    struct stat status;
    const int fd = regular_only(openat(folder, name, flags), &status);
    if (fd >= 0 && lseek(fd, 0, SEEK_END) < 0) {
        return give_up(fd, errno);
    }
    return fd;
}

int FTX_closeFdFile(qx_descriptor* file) {
    return FileClose(file->release());
}

int FTX_renameFile(int folder, const char* from, const char* to, bool replace) {
    if (replace) {
        return renameat(folder, from, folder, to);
    }
    if (renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return -1;
    }
    // Not every file system can do it in one. A second name is refused, too, when there is a first; where there
    // are no second names, a look must do.
    if (linkat(folder, from, folder, to, 0) == 0) {
        return unlinkat(folder, from, 0);
    }
    struct stat status;
    if (errno == EEXIST || fstatat(folder, to, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return -1;
    }
    return renameat(folder, from, folder, to);
}

bool FTX_sameContent(int folder, const char* one, const char* other, bool to_disk) {
    struct stat of_one, of_other;
    const qx_descriptor first(FTX_openFileRead(folder, one, false, &of_one));
    const qx_descriptor second(FTX_openFileRead(folder, other, false, &of_other));
    return first.valid() && second.valid() && of_one.st_size == of_other.st_size &&
           same_bytes(first.get(), second.get()) && (!to_disk || fsync(second.get()) == 0);
}

std::string create_TempPath(const ftx_entry* ftx, const ftx_elem* elem) {
    const int id = ftx->ftx_ah_idnr2 != 0 ? ftx->ftx_ah_idnr2 : ftx->ftx_transfer_id;
    char letters[8];
    Zudnst_LongToB26(static_cast<uint32_t>(id), letters);
    return std::string(letters) + "_" + std::to_string(elem->ftxe_oId) + ".tmp";
}

bool ftx_is_own_file(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && status.st_nlink == 1 && status.st_uid == geteuid();
}

int ftx_sync_folder(int folder) {
    const qx_descriptor open_folder(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return open_folder.valid() ? fsync(open_folder.get()) : -1;
}

std::vector<int> ftx_sync_all(const std::vector<int>& descriptors) {
    std::vector<int> failures;
    const bool together = descriptors.size() >= many_files && syncs_whole(descriptors.front());
    const dev_t synced = together ? sync_file_system(descriptors.front()) : 0;
    for (const int fd : descriptors) {
        struct stat status;
        const bool there = synced != 0 && fstat(fd, &status) == 0 && status.st_dev == synced;
        // A failure to write is told to each descriptor of the file, without another flush of the disk.
        int result = there ? sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE) : fsync(fd);
        if (there && result != 0 && errno == ENOSYS) {
            result = fsync(fd);
        }
        failures.push_back(result == 0 ? 0 : errno);
    }
    return failures;
}

int ftx_check_space(const ftx_entry* ftx, const std::string& path, const std::string& file, int64_t size,
                    qx7_error* err) {
    std::string place = path;
    int64_t space = getFreeDiskSpaceFs(place.c_str());
    while (space < 0 && errno == ENOENT && place.size() > 1) {
        place = path_folder_name(place);
        space = getFreeDiskSpaceFs(place.c_str());
    }
    // What cannot be told shows when it is written.
    if (space <= 0 || space >= size) {
        return 0;
    }
    return qx_error_set(err, -1, ENOSPC, number_no_space, "%d|%s|%ld|%ld|", ftx->ftx_transfer_id,
                        printable(file).c_str(), static_cast<long>(size), static_cast<long>(space));
}

bool ftx_simulated(int chance) {
    return chance > 0 && rand() % chance == 0;
}
