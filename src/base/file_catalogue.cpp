// What the file layer knows of a file: catalogue, kinds and figures.
#include <grp.h>
#include <pwd.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"

namespace {

constexpr unsigned short wrong_arguments = 65535;
constexpr size_t account_buffer = 16384;

void name_of_user(uid_t uid, char (&out)[128]) {
    effUser_guard guard;
    std::vector<char> buffer(account_buffer);
    passwd entry;
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        copy_text(out, found->pw_name);
    }
}

void name_of_group(gid_t gid, char (&out)[128]) {
    effUser_guard guard;
    std::vector<char> buffer(account_buffer);
    group entry;
    group* found = nullptr;
    if (getgrgid_r(gid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        copy_text(out, found->gr_name);
    }
}

unsigned char letter(bool set, char c) {
    return static_cast<unsigned char>(set ? c : '-');
}

unsigned char execute_letter(bool execute, bool special, char with, char without) {
    if (special) {
        return static_cast<unsigned char>(execute ? with : without);
    }
    return letter(execute, 'x');
}

// Only a directory has a right to delete: write and execute together.
unsigned char delete_letter(mode_t mode, mode_t write, mode_t execute) {
    return letter(S_ISDIR(mode) && (mode & write) != 0 && (mode & execute) != 0, 'd');
}

void fill_rights(mode_t mode, FILE_CAT* c) {
    c->fc_usr_read = letter((mode & S_IRUSR) != 0, 'r');
    c->fc_usr_write = letter((mode & S_IWUSR) != 0, 'w');
    c->fc_usr_exec = execute_letter((mode & S_IXUSR) != 0, (mode & S_ISUID) != 0, 's', 'S');
    c->fc_usr_delete = delete_letter(mode, S_IWUSR, S_IXUSR);
    c->fc_grp_read = letter((mode & S_IRGRP) != 0, 'r');
    c->fc_grp_write = letter((mode & S_IWGRP) != 0, 'w');
    c->fc_grp_exec = execute_letter((mode & S_IXGRP) != 0, (mode & S_ISGID) != 0, 's', 'S');
    c->fc_grp_delete = delete_letter(mode, S_IWGRP, S_IXGRP);
    c->fc_all_read = letter((mode & S_IROTH) != 0, 'r');
    c->fc_all_write = letter((mode & S_IWOTH) != 0, 'w');
    c->fc_all_exec = execute_letter((mode & S_IXOTH) != 0, (mode & S_ISVTX) != 0, 't', 'T');
    c->fc_all_delete = delete_letter(mode, S_IWOTH, S_IXOTH);
}

void fill_all(const struct stat& status, FILE_CAT* c) {
    c->fc_ino = static_cast<long>(status.st_ino);
    c->fc_size = status.st_size;
    c->fc_blocks = status.st_blocks;
    c->fc_dev = static_cast<long>(status.st_dev);
    c->fc_rdev = static_cast<long>(status.st_rdev);
    c->fc_nlink = static_cast<unsigned>(status.st_nlink);
    c->fc_uid = status.st_uid;
    c->fc_gid = status.st_gid;
    c->fc_statmode = status.st_mode;
    c->fc_blksize = static_cast<unsigned>(status.st_blksize);
    fill_rights(status.st_mode, c);
    name_of_user(status.st_uid, c->fc_UserName);
    name_of_group(status.st_gid, c->fc_GroupName);
    GetDatumZeit2(&status.st_atime, &c->fc_atime);
    GetDatumZeit2(&status.st_mtime, &c->fc_mtime);
    GetDatumZeit2(&status.st_ctime, &c->fc_ctime);
}

FILE_CAT* failed(FILE_CAT* c, int error_number) {
    c->fc_errno = static_cast<unsigned short>(error_number);
    return c;
}

void set_text(FILE_CAT* c, const std::string& text) {
    copy_text(c->fc_rettext, text);
}

}  // namespace

FILE_CAT* GetFileCatalog(const char* path, int fd, int kind, const char* baseDir, FILE_CAT* catalogue) {
    memset(static_cast<void*>(catalogue), 0, sizeof *catalogue);
    memcpy(catalogue->fc_kopf, "%%FILE_CATALOG%%", sizeof catalogue->fc_kopf);
    const bool by_path = path != nullptr && path[0] != '\0';
    if (!by_path && fd <= 0) {
        snprintf(catalogue->fc_rettext, sizeof catalogue->fc_rettext, "Parametererror (%s), %s", __func__,
                 "Dateiname und fd sind ungueltig (NULL, 0)");
        return failed(catalogue, wrong_arguments);
    }
    if (by_path) {
        if (GetFilePfad(path, baseDir, catalogue->fc_PfadName, sizeof catalogue->fc_PfadName) != 0) {
            const int number = errno;
            set_text(catalogue, std::string("GetFilePfad()|") + path + "|" + strerror(number) + "|");
            return failed(catalogue, number);
        }
        const std::string_view whole = catalogue->fc_PfadName;
        copy_text(catalogue->fc_FolderName, path_folder_name(whole));
        copy_text(catalogue->fc_DateiName, path_file_name(whole));
    } else {
        catalogue->fc_fd = static_cast<short>(fd);
    }
    struct stat status;
    if (GetStatBuf(by_path ? catalogue->fc_PfadName : nullptr, fd, &status, nullptr, 0) != 0) {
        const int number = errno;
        const std::string what = by_path ? catalogue->fc_PfadName : std::to_string(fd);
        set_text(catalogue, "GetStatBuf()|" + what + "|" + strerror(number) + "|");
        return failed(catalogue, number);
    }
    catalogue->fc_mode = mapFileTypeResult(status.st_mode);
    if (kind != CATALOGUE_MODE_ONLY) {
        fill_all(status, catalogue);
    }
    return catalogue;
}

int get_myFileCatalog(const char* path, file_short_catalogue* catalogue, size_t size, qx7_error* error) {
    qx_error_clear(error);
    if (path == nullptr || catalogue == nullptr || size < sizeof *catalogue) {
        return file_error(error, "get_myFileCatalog()", path == nullptr ? "" : path, EINVAL);
    }
    *catalogue = {};
    struct stat status;
    if (stat(path, &status) != 0) {
        return file_error(error, "GetStatBuf()", path, errno);
    }
    *catalogue = {mapFileTypeResult(status.st_mode),
                  status.st_size,
                  status.st_uid,
                  status.st_gid,
                  status.st_mode,
                  status.st_mtime};
    return 0;
}

int GetStatBuf(const char* path, int fd, struct stat* buffer, char* text, size_t text_size) {
    const int result = path != nullptr ? stat(path, buffer) : fstat(fd, buffer);
    if (text != nullptr) {
        copy_text(text, text_size, "");
    }
    if (result != 0) {
        const int number = errno;
        memset(buffer, 0xFF, sizeof *buffer);
        if (text != nullptr) {
            copy_text(text, text_size, strerror(number));
        }
        errno = number;
    }
    return result;
}

int64_t GetFileSize(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 ? status.st_size : -1;
}

int64_t getFileSize1(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 ? status.st_size : -1;
}

int getFileMode(const char* path, mode_t* mode) {
    struct stat status;
    if (stat(path, &status) != 0) {
        return -1;
    }
    *mode = status.st_mode;
    return 0;
}

int getMyStatFs(const char* path, fs_figures* figures, qx7_error* error) {
    qx_error_clear(error);
    struct statvfs system;
    if (statvfs(path, &system) != 0) {
        return file_error(error, "statvfs()", path, errno);
    }
    *figures = {system.f_frsize, system.f_blocks, system.f_bfree, system.f_bavail};
    return 0;
}

int64_t getFreeDiskSpaceFs(const char* path) {
    fs_figures figures{};
    if (getMyStatFs(path, &figures, nullptr) != 0) {
        return -1;
    }
    return static_cast<int64_t>(figures.available_blocks * figures.block_size);
}

file_kind mapFileTypeResult(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return FILE_KIND_REGULAR;
        case S_IFDIR:
            return FILE_KIND_DIRECTORY;
        case S_IFCHR:
            return FILE_KIND_CHARACTER;
        case S_IFBLK:
            return FILE_KIND_BLOCK;
        case S_IFIFO:
            return FILE_KIND_PIPE;
        case S_IFLNK:
            return FILE_KIND_LINK;
        case S_IFSOCK:
            return FILE_KIND_SOCKET;
        default:
            return FILE_KIND_OTHER;
    }
}

int fileExists(const char* path, qx7_error* error) {
    struct stat status;
    if (path != nullptr && stat(path, &status) == 0) {
        return 1;
    }
    const int number = path == nullptr ? EINVAL : errno;
    if (error != nullptr) {
        error->qx_errno = number;
    }
    errno = number;
    return 0;
}

file_kind getFileType(const char* path, qx7_error* error) {
    qx_error_clear(error);
    if (path == nullptr || path[0] == '\0') {
        file_error(error, "getFileType parametererror", "NULL/0", EINVAL);
        return FILE_KIND_NONE;
    }
    if (fileExists(path, nullptr) == 0) {
        file_error(error, "fileExists", path, errno);
        return FILE_KIND_NONE;
    }
    struct stat status;
    if (GetStatBuf(path, 0, &status, nullptr, 0) != 0) {
        file_error(error, "GetStatBuf", path, errno);
        return FILE_KIND_NONE;
    }
    return mapFileTypeResult(status.st_mode);
}

file_kind getFileTypeIgnoreErrors(const char* path, const char* pattern, qx7_error* error, bool followLinks) {
    const file_kind kind = getFileType(path, error);
    if (kind != FILE_KIND_NONE || path == nullptr || pattern == nullptr || followLinks) {
        return kind;
    }
    if (MyStrMatch(path_file_name(path), pattern) == 0) {
        return kind;
    }
    struct stat link;
    const bool gone = lstat(path, &link) != 0 && errno == ENOENT;
    if (gone || S_ISLNK(link.st_mode)) {
        qx_error_clear(error);
    }
    return kind;
}

int CheckDir(const char* path) {
    struct stat status;
    if (stat(path, &status) != 0) {
        return -1;
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return 0;
}

std::string PutFileAttr(const FILE_CAT* c) {
    char text[512];
    snprintf(text, sizeof text, "%c%c%c%c%c%c%c%c%c%c %u %.128s(%u) %.128s(%u) %ld %.32s", c->fc_mode,
             c->fc_usr_read, c->fc_usr_write, c->fc_usr_exec, c->fc_grp_read, c->fc_grp_write, c->fc_grp_exec,
             c->fc_all_read, c->fc_all_write, c->fc_all_exec, c->fc_nlink, c->fc_UserName, c->fc_uid,
             c->fc_GroupName, c->fc_gid, c->fc_size, c->fc_mtime.text);
    return text;
}
