// File operations as another user, and files at places where strangers have a say.
//
// The operations named ..EffUser take the user's name first (empty: the agent itself), clear `error`, hold
// the effective-user lock, borrow the identity, work, and give it back. Failures fill `error`: qx_errno the
// errno, insert
// "<function> error '<reason>'", or the message of the switch that failed. Descriptors are close-on-exec,
// opened without waiting and not over /proc/<pid>/fd (ELOOP), and only if they are regular files (EISDIR,
// EINVAL) that the kernel did not make up (EACCES, see is_kernel_file).
// Any thread.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "base/error.h"

// 1 removed, 0 there was none, -1 failure. Only regular files and links are removed.
int RemoveWithEffUser(const char* user, const char* path, qx7_error* error);
int removeFile_EffUser(const char* user, const char* path, qx7_error* error);  // 0 or -1
int removeDir_EffUser(const char* user, const char* path, qx7_error* error);   // rmdir; 0 or -1
int rename_fileEffUser(const char* user, const char* from, const char* to, qx7_error* error);

// A descriptor, or -1. `links` false: a link as last part is ELOOP.
int Open_ReadEffUser(const char* user, const char* path, qx7_error* error, bool links = true);
// Truncates an existing file; one that is missing is made with `mode`, less the umask.
int Open_WriteEffUser(const char* user, const char* path, mode_t mode, qx7_error* error);
int Open_AppendEffUser(const char* user, const char* path, mode_t mode, qx7_error* error);
int close_fdEffUser(const char* user, int fd, qx7_error* error);

// `mode` as fopen has it ("r", "w", "a", with "+"; "wx" only makes a new file). Null on failure.
FILE* StreamOpen_EffUser(const char* user, const char* path, const char* mode, qx7_error* error);
// The same, and the file's mode is set to `file_mode`.
FILE* StreamOpenChmod_EffUser(const char* user, const char* path, const char* mode, mode_t file_mode,
                              qx7_error* error);
int StreamClose_EffUser(const char* user, FILE* stream, qx7_error* error);
// Closes, then gives the file the times of access and modification.
int StreamCloseSetTimes_EffUser(const char* user, FILE* stream, const char* path, time_t accessed,
                                time_t modified, qx7_error* error);
// Makes one directory with the mode, which the umask does not change; one that is there already is EEXIST.
int createDir_EffUser(const char* user, const char* path, mode_t mode, qx7_error* error);
// Makes the missing directories of the path (mode 0755) and opens the file for writing with the mode; a
// descriptor.
int createDirFile_EffUser(const char* user, const char* path, mode_t mode, qx7_error* error);

// ---- The way to a file

// Who has a say about a path: the owners of all directories and links on the way to it. `dir` is the folder
// that holds the last part, opened as a place only (O_PATH); files reached through it cannot be swapped by
// renaming the way.
struct file_way {
    qx_descriptor dir;
    std::string name;              // last part
    bool trusted = false;          // the way belongs to root and the agent alone
    bool single_stranger = false;  // exactly one other user has a say: `stranger`
    uid_t stranger = 0;
};
// `path` is absolute. 0, or -1 with errno (ENAMETOOLONG, ELOOP after 40 links, EINVAL without a last part).
int walk_way(const char* path, file_way* way);

// Which step of make_file_for failed.
enum file_step {
    FILE_STEP_NONE,
    FILE_STEP_CREATE,
    FILE_STEP_WRITE,
    FILE_STEP_CLOSE,
    FILE_STEP_CHMOD,
    FILE_STEP_CHOWN
};

struct file_result {
    file_step failed = FILE_STEP_NONE;
    int error_number = 0;
    dev_t device = 0;  // of the file that was made
    ino_t inode = 0;
};

// A new file with `content`, in place of a regular file or link of that name, belonging to uid and gid with
// the mode. Made with the agent's rights where the way is trusted; under the identity of `user` where the
// only stranger on the way is that user; EPERM (step CREATE) otherwise. What was made is removed when a later
// step fails. `kept`, when given, gets the file as it was made, open to append. Takes the lock.
file_result make_file_for(const char* path, std::string_view content, mode_t mode, const char* user,
                          uid_t uid, gid_t gid, qx_descriptor* kept = nullptr);

// Opens a regular file for reading with the agent's rights on order of somebody who gave no login: where the
// way is not trusted, the file must belong to the single stranger (else EACCES); where others may write into
// its folder, it must have one name only (else EACCES). No link as last part, and no file of the kernel's own
// (EACCES). Descriptor or -1 with errno.
// Takes the lock.
int open_read_on_order(const char* path);
// The three above and below keep a trusted folder open for some seconds and walk to it anew only when another
// one stands under its path. This closes those whose time is over, so that no idle agent holds a file system.
void close_old_folders();
// Removes a regular file or link with the agent's rights, by the folder that the walk found. Not trusted: the
// file must belong to the stranger (else EACCES). 0, or -1 with errno. Takes the lock.
int remove_on_order(const char* path);
