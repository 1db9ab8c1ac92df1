// Files: opening and closing, safe creation, kinds and attributes, removal, directories.
//
// Every descriptor is opened close-on-exec. Functions with a qx7_error clear it first and fill it with
// 2003041 and
// "<function>|<file>|<errno>|<text>|". Those without keep errno. Reading and writing of data:
// base/file_data.h.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/error_text.h"
#include "base/time.h"

// ---- Catalogue

// Values of fc_mode.
enum file_kind : unsigned char {
    FILE_KIND_NONE = 0,
    FILE_KIND_REGULAR = '-',
    FILE_KIND_DIRECTORY = 'd',
    FILE_KIND_CHARACTER = 'c',
    FILE_KIND_BLOCK = 'b',
    FILE_KIND_PIPE = 'p',
    FILE_KIND_LINK = 'l',
    FILE_KIND_SOCKET = 's',
    FILE_KIND_OTHER = '?',
};

enum catalogue_kind : int { CATALOGUE_MODE_ONLY = 1, CATALOGUE_ALL = 3 };

struct FILE_CAT {
    char fc_kopf[16];
    short fc_fd;
    unsigned short fc_errno;  // 0, errno, or 65535 for wrong arguments
    char fc_rettext[80];
    long fc_ino, fc_size, fc_blocks, fc_dev, fc_rdev;
    unsigned fc_nlink;
    unsigned char fc_mode;  // file_kind
    char fc_filler[3];
    unsigned char fc_usr_read, fc_usr_write, fc_usr_exec, fc_usr_delete;
    unsigned char fc_grp_read, fc_grp_write, fc_grp_exec, fc_grp_delete;
    unsigned char fc_all_read, fc_all_write, fc_all_exec, fc_all_delete;
    unsigned fc_uid, fc_gid;
    mode_t fc_statmode;
    char fc_UserName[128], fc_GroupName[128];
    DATUM_BUFF fc_atime, fc_mtime, fc_ctime;
    unsigned fc_blksize;
    char fc_PfadName[4096], fc_DateiName[4096], fc_FolderName[4096];
};

// Fills *catalogue by path (completed against baseDir, may be null) or, with a null path, by descriptor. A
// link is followed. Always returns catalogue; fc_errno tells.
FILE_CAT* GetFileCatalog(const char* path, int fd, int kind, const char* baseDir, FILE_CAT* catalogue);

struct file_short_catalogue {
    unsigned char mode;  // file_kind
    int64_t size;
    uid_t uid;
    gid_t gid;
    mode_t statmode;
    time_t mtime;
};
// Kind, size and ids of a path; 0 or -1 with the error filled. `size` is sizeof *catalogue.
int get_myFileCatalog(const char* path, file_short_catalogue* catalogue, size_t size, qx7_error* error);

// stat by path, or by descriptor with a null path. All-ones and a text "%s" of the failure in `text` when it
// fails. 0 or -1 with errno.
int GetStatBuf(const char* path, int fd, struct stat* buffer, char* text, size_t text_size);
int64_t GetFileSize(const char* path);  // -1 with errno
int64_t getFileSize1(int fd);           // -1 with errno
int getFileMode(const char* path, mode_t* mode);
// Bytes that an ordinary user may still write on the file system of `path`; -1 with errno.
int64_t getFreeDiskSpaceFs(const char* path);
struct fs_figures {
    uint64_t block_size, blocks, free_blocks, available_blocks;
};
int getMyStatFs(const char* path, fs_figures* figures, qx7_error* error);

file_kind mapFileTypeResult(mode_t mode);
// Kind letter, 0 for failure (error filled). Links are followed.
file_kind getFileType(const char* path, qx7_error* error);
// The same, but a name that matches `pattern` and has vanished or is a dangling link is no failure (0, no
// number).
file_kind getFileTypeIgnoreErrors(const char* path, const char* pattern, qx7_error* error, bool followLinks);
// 1 when it exists, also a directory; 0 with the errno in `error` when not.
int fileExists(const char* path, qx7_error* error);
// 0 when it is a directory, -1 with errno.
int CheckDir(const char* path);
// Attributes as "-rwxr-xr-x" and owner, group, size and time in one line of text.
std::string PutFileAttr(const FILE_CAT* catalogue);

// ---- Safe creation and opening

// Which step of a creation failed; the names are the first inserts of 2003041.
inline constexpr char step_create[] = "FileCreate()";
inline constexpr char step_chmod[] = "chmod";
inline constexpr char step_chown[] = "chown";

// A new file in place of whatever regular file or link had the name: never an existing file, never through a
// link. Opened O_RDWR with mode 0600, then set to `mode` and, where they are not -1, to uid and gid, by
// descriptor; what was created is removed again when a step fails. Result: descriptor, or -1 with errno and
// *failed_step (may be null).
int create_new_file(const char* path, mode_t mode, uid_t uid, gid_t gid, const char** failed_step);
// The same by descriptor of the directory. `access`: O_RDWR, O_WRONLY | O_APPEND and the like.
int create_new_file_at(int directory, const char* name, mode_t mode, uid_t uid, gid_t gid,
                       const char** failed_step, int access = O_RDWR);
// Opens an existing regular file that is no link, without waiting and without becoming its terminal; `flags`
// are O_RDONLY, O_WRONLY|O_APPEND and the like. EISDIR or EINVAL for what is no regular file, ELOOP for a
// link.
int open_regular_at(int directory, const char* name, int flags);
// True for a file of procfs, sysfs and their like, whose content the kernel makes up for the process that
// reads it: the agent's own memory map is nothing that is read by order, whatever name leads there. True also
// when it cannot be told.
bool is_kernel_file(int fd);

// ---- Opening and closing

FILE* FileFOpen(const char* path, const char* mode);
FILE* FileFOpenNoTrace(const char* path, const char* mode);
int FileFClose(FILE* stream);
// `flags` as for open; no file is created unless they hold O_CREAT.
int FileOpen(const char* path, int flags, mode_t mode);
int FileOpenRead(const char* path);  // regular files only, links followed; EINVAL otherwise
int FileOpenWrite(const char* path);
int FileOpenReadWrite(const char* path);
int FileOpenAppend(const char* path);
int FileClose(int fd);
// create_new_file with the process's own ids; descriptor or -1.
int FileCreate(const char* path, mode_t mode);
// Removes a regular file or a link; anything else is EPERM. 0 or -1 with errno.
int FileRemove(const char* path);
int FileRemoveAt(int directory, const char* name);

int fdFileOpen(const char* path, int flags, mode_t mode, qx7_error* error);
int fdFileOpenRead(const char* path, qx7_error* error);
int fdFileOpenReadWrite(const char* path, qx7_error* error);
int fdFileOpenNewFile(const char* path, qx7_error* error);  // must not exist
int fdFileOpenNewVer(const char* path, qx7_error* error);   // takes the place of an old one
int fdFileClose(int fd, qx7_error* error);
int fdFileCloseLock(int fd, qx7_error* error);  // under the effective-user lock

int SetFdCloexec(int fd);
// Raises the soft descriptor limit to the hard one, at most 65536; the new limit, -1 on failure.
int SetMaxFileLimit();
// Closes all descriptors from `first` up but those in keep[count]. Safe in a forked child.
void AllFdClose(int first, const int* keep, int count);

// ---- Directories

// Makes every missing level; 0 or 1.
int create_Dir(const char* path, qx7_error* error);
// The same with a mode that the umask does not change, under the effective-user lock; existing levels keep
// theirs. 0 or not 0.
int create_Dir_Mode(const char* path, mode_t mode, qx7_error* error);
DIR* DirOpen(const char* path);
// Next name, without "." and ".."; null at the end (errno 0) or on failure.
const char* DirReadNext(DIR* directory);
int DirClose(DIR* directory);
// Removes a tree, never following a link; 0 or -1.
int remove_all(const char* dir, qx7_error* error);
// Removes the files of a directory that holds only files; their count, or -1.
int remove_allDirfiles(const char* dir, qx7_error* error);

int change_mode(const char* path, mode_t mode);
int change_owner(const char* path, uid_t uid, gid_t gid);
