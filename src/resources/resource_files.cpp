#include "resources/resource_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/obstacles.h"
#include "base/paths.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "resources/resources.h"

namespace {

constexpr mode_t shared_directory_mode = 01777;  // nobody may take away what belongs to others
constexpr mode_t hardened_mode = 0755;
constexpr mode_t task_mode = 0700;
constexpr mode_t client_file_mode = 0777;

bool hardened() {
    return GlbPcx != nullptr && GlbPcx->pcx_hardened != 0;
}

bool is_agents(const struct stat& status) {
    return status.st_uid == 0 || status.st_uid == geteuid();
}

std::string folder_of(const EX_PCX* pcx) {
    std::string folder = path_clean(pcx->pcx_res_dir);
    return folder.ends_with('/') ? folder : folder + "/";
}

bool climbs(const std::string& clean) {
    return clean.find("/../") != std::string::npos || clean.ends_with("/..") || clean.starts_with("../") ||
           clean == "..";
}

int directory_error(qx7_error* error, int number, const resource_job* job, const std::string& path,
                    int error_number) {
    return qx_error_set(error, -1, error_number, number, "%d:%.200s|%.500s|%d - %s", job->JP_Mandant,
                        job->JP_oName, path.c_str(), error_number, error_text(error_number).c_str());
}

void log_directory(int number, const resource_job* job, const std::string& path) {
    __log(number, "%d:%.200s|%.500s", job->JP_Mandant, job->JP_oName, path.c_str());
}

// The folder `name` in `at`, made or found. The agent's own or root's and no link, for somebody else could
// lead the way elsewhere; what else has the name is moved away. -1 with errno.
int open_folder(int at, const std::string& name, const std::string& path, bool* created) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    *created = mkdirat(at, name.c_str(), 0700) == 0;
    if (!*created && errno != EEXIST) {
        return -1;
    }
    qx_descriptor found(openat(at, name.c_str(), flags));
    struct stat status;
    if (found.valid() && fstat(found.get(), &status) == 0 && is_agents(status)) {
        return found.release();
    }
    const std::string made = hidden_name();
    if (mkdirat(at, made.c_str(), 0700) != 0) {
        return -1;
    }
    if (take_place(at, made.c_str(), name.c_str(), path.c_str()) != 0) {
        const int failed = errno;
        unlinkat(at, made.c_str(), AT_REMOVEDIR);
        errno = failed == EEXIST ? EPERM : failed;
        return -1;
    }
    *created = true;
    return openat(at, name.c_str(), flags);
}

// Makes the missing levels of `path` below the cache folder with the agent's rights. The last one, or -1.
int open_folders(const EX_PCX* pcx, const std::string& path, mode_t mode, bool* made) {
    const std::string folder = folder_of(pcx);
    const std::string clean = path_clean(path) + "/";
    qx_descriptor at(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!at.valid() || !clean.starts_with(folder)) {
        return -1;
    }
    for (const std::string_view part : split_words(std::string_view(clean).substr(folder.size()), '/')) {
        const std::string name(part);
        if (name.empty()) {
            continue;
        }
        bool created = false;
        qx_descriptor next(open_folder(at.get(), name, path, &created));
        if (!next.valid()) {
            return -1;
        }
        if (created && fchmod(next.get(), mode) != 0) {
            return -1;
        }
        *made = *made || created;
        at = std::move(next);
    }
    return at.release();
}

// Down to the file's own folder: one that a user made could not take the next version by another one's job.
int make_client_path(const EX_PCX* pcx, const resource_job* job, const resource_item& resource,
                     qx7_error* error) {
    const std::string path(path_folder_name(resource.file_path));
    struct stat status;
    effUser_guard lock;
    if (!hardened() && stat(path.c_str(), &status) == 0) {
        return 1;
    }
    bool made = false;
    const mode_t mode = hardened() ? hardened_mode : shared_directory_mode;
    const qx_descriptor folder(open_folders(pcx, path, mode, &made));
    // A directory from the time before `hardened` was set is closed for others now.
    if (!folder.valid() || (hardened() && fchmod(folder.get(), mode) != 0)) {
        return directory_error(error, number_cache_failed, job, path, errno);
    }
    if (made) {
        log_directory(number_cache_made, job, path);
    }
    return 1;
}

// The directory above the task's own, where each user may make one.
int make_task_parent(const EX_PCX* pcx, const resource_job* job, const std::string& parent,
                     qx7_error* error) {
    bool made = false;
    effUser_guard lock;
    const qx_descriptor folder(open_folders(pcx, parent, shared_directory_mode, &made));
    struct stat status;
    const bool good = folder.valid() && fstat(folder.get(), &status) == 0 &&
                      ((status.st_mode & 07777) == shared_directory_mode ||
                       fchmod(folder.get(), shared_directory_mode) == 0);
    if (!good) {
        return directory_error(error, number_cache_failed, job, parent, errno);
    }
    if (made) {
        log_directory(number_cache_made, job, parent);
    }
    return 0;
}

// A directory made beforehand by somebody else, or one that lies in what is somebody else's, would let him
// change what the job reads.
bool task_directory_is_jobs(const EX_PCX* pcx, const resource_job* job, const std::string& path) {
    bool made = false;
    const size_t slash = path.rfind('/');
    effUser_guard lock;
    const qx_descriptor folder(open_folders(pcx, path.substr(0, slash + 1), shared_directory_mode, &made));
    struct stat status;
    return folder.valid() &&
           fstatat(folder.get(), path.c_str() + slash + 1, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode) && status.st_uid == job->jp_uid && (status.st_mode & 022) == 0;
}

// Somebody else was there first. 0, or -1 with qx_errno.
int replace_task_directory(const EX_PCX* pcx, const resource_job* job, const std::string& path,
                           qx7_error* error) {
    const size_t slash = path.rfind('/');
    const std::string made = hidden_name();
    const std::string made_path = path.substr(0, slash + 1) + made;
    if (createDir_EffUser(job->jp_userName, made_path.c_str(), task_mode, error) != 0) {
        return -1;
    }
    bool new_folders = false;
    effUser_guard lock;
    const qx_descriptor folder(
        open_folders(pcx, path.substr(0, slash + 1), shared_directory_mode, &new_folders));
    if (folder.valid() &&
        take_place(folder.get(), made.c_str(), path.c_str() + slash + 1, path.c_str()) == 0) {
        return 0;
    }
    const int failed = errno == EEXIST ? EPERM : errno;
    qx7_error ignored;  // the first failure is the one to tell
    (void)removeDir_EffUser(job->jp_userName, made_path.c_str(), &ignored);
    return qx_error_set(error, -1, failed, 0, "%s", "");
}

int make_task_path(const EX_PCX* pcx, const resource_job* job, qx7_error* error) {
    const std::string path = path_clean(job->jp_task_cache_path);
    struct stat status;
    const bool taken = lstat(path.c_str(), &status) == 0;
    if (taken && task_directory_is_jobs(pcx, job, path)) {
        return 1;
    }
    if (make_task_parent(pcx, job, path.substr(0, path.rfind('/') + 1), error) != 0) {
        return taken ? directory_error(error, number_task_cache_failed, job, path, EPERM) : -1;
    }
    qx7_error reason;
    if (createDir_EffUser(job->jp_userName, path.c_str(), task_mode, &reason) != 0 &&
        (reason.qx_errno != EEXIST || replace_task_directory(pcx, job, path, &reason) != 0)) {
        return directory_error(error, number_task_cache_failed, job, path, reason.qx_errno);
    }
    log_directory(number_task_cache_ready, job, path);
    return 1;
}

int file_failed(qx7_error* error, const resource_item& resource, int error_number) {
    return qx_error_set(error, -1, error_number, number_resource_file_failed, "%d:%s/%s|%.400s|%d - %s|",
                        resource.client, resource.object_name.c_str(), resource.resource_name.c_str(),
                        resource.file_path.c_str(), error_number, error_text(error_number).c_str());
}

// What stands on disk, or half of it: in a directory that all may write to, only the agent may remove another
// user's file.
void remove_old_version(const resource_item& resource) {
    if (remove_on_order(resource.file_path.c_str()) != 0 && errno != ENOENT) {
        __PutLogText("resource file '%.400s': the old version cannot be removed: %s",
                     resource.file_path.c_str(), error_text(errno).c_str());
    }
}

// Under `hardened` the way to the file belongs to the agent alone.
bool way_is_agents(const std::string& path) {
    file_way way;
    const size_t slash = path.rfind('/');
    if (walk_way(path.c_str(), &way) == 0) {
        return way.trusted;
    }
    // Directories that are still missing are made by the agent itself.
    return errno == ENOENT && slash != std::string::npos && slash > 0 && way_is_agents(path.substr(0, slash));
}

int write_file(const resource_item& resource, const char* user, mode_t mode,
               std::span<const unsigned char> data) {
    qx7_error error;
    const int fd = createDirFile_EffUser(user, resource.file_path.c_str(), mode, &error);
    if (fd < 0) {
        return error.qx_errno;
    }
    FILE* stream = fdopen(fd, "w");
    if (stream == nullptr) {
        close(fd);
        return ENOMEM;
    }
    int failed = 0;
    if (!data.empty() && fwrite(data.data(), 1, data.size(), stream) != data.size()) {
        failed = errno;
    }
    const time_t time = resource.timestamp;
    const char* path = resource.file_path.c_str();
    // Only with the server's time is the file found to be current by the next job.
    if (StreamCloseSetTimes_EffUser(user, stream, path, time, time, &error) != 0 && failed == 0) {
        failed = error.qx_errno;
    }
    return failed;
}

void keep_first(qx7_error* first, const qx7_error& failure) {
    if (first->qx_msgnr == 0) {
        *first = failure;
    } else {
        __log_error(failure);
    }
}

void delete_task_file(const resource_job* job, const resource_item& item, qx7_error* first) {
    qx7_error reason;
    const int removed = RemoveWithEffUser(job->jp_userName, item.file_path.c_str(), &reason);
    if (removed < 0) {
        qx7_error failure;
        qx_error_set(&failure, -1, reason.qx_errno, number_cache_delete_failed, "%d:%s/%s|%.400s|%d - %s",
                     job->JP_Mandant, item.object_name.c_str(), item.resource_name.c_str(),
                     item.file_path.c_str(), reason.qx_errno, error_text(reason.qx_errno).c_str());
        keep_first(first, failure);
    } else if (removed > 0) {
        __log(number_cache_deleted, "%d:%s/%s|%.400s", job->JP_Mandant, item.object_name.c_str(),
              item.resource_name.c_str(), item.file_path.c_str());
    }
}

// The directories between the job's own and a file in it, from the innermost on; those that hold more stay.
void delete_folders_of(const resource_job* job, const resource_item& item) {
    const std::string top = path_clean(job->jp_task_cache_path) + "/";
    std::string folder = path_clean(item.file_path);
    qx7_error ignored;
    do {
        folder.resize(std::min(folder.size(), folder.rfind('/')));
    } while (top.size() > 1 && folder.size() > top.size() && folder.starts_with(top) &&
             removeDir_EffUser(job->jp_userName, folder.c_str(), &ignored) == 0);
}

void delete_task_directory(const resource_job* job, qx7_error* first) {
    const std::string path = path_clean(job->jp_task_cache_path);
    struct stat status;
    if (path.empty() || lstat(path.c_str(), &status) != 0) {
        return;  // it never came to one
    }
    qx7_error reason;
    if (removeDir_EffUser(job->jp_userName, path.c_str(), &reason) == 0) {
        log_directory(number_cache_deleted, job, path);
    } else if (reason.qx_errno != ENOTEMPTY && reason.qx_errno != EEXIST) {
        qx7_error failure;
        directory_error(&failure, number_cache_delete_failed, job, path, reason.qx_errno);
        keep_first(first, failure);
    }
}

}  // namespace

bool resource_take_path(const EX_PCX* pcx, std::string_view told, std::string* path) {
    *path = std::string(told);
    if (!path->ends_with('/')) {
        *path += '/';
    }
    const std::string folder = folder_of(pcx);
    const std::string clean = path_clean(*path);
    if (folder.size() > 1 && (clean + "/").starts_with(folder) && !climbs(clean)) {
        return true;
    }
    path->clear();
    return false;
}

bool resource_name_is_safe(std::string_view name) {
    const std::string clean = path_clean(name);
    return !clean.empty() && clean.front() != '/' && clean.find('\0') == std::string::npos && !climbs(clean);
}

int resource_stat(const std::string& path, long* modified) {
    struct stat status;
    if (!hardened()) {
        if (stat(path.c_str(), &status) != 0) {
            return -1;
        }
        *modified = S_ISREG(status.st_mode) ? status.st_mtime : resource_time_none;
        return 0;
    }
    if (lstat(path.c_str(), &status) != 0) {
        return -1;
    }
    const bool sound =
        S_ISREG(status.st_mode) && is_agents(status) && (status.st_mode & 022) == 0 && way_is_agents(path);
    *modified = sound ? status.st_mtime : resource_time_none;
    return 0;
}

int CreateCachePath(EX_PCX* pcx, const resource_job* job, const resource_item& resource, qx7_error* error) {
    return resource.cache_type == RESOURCE_TASK ? make_task_path(pcx, job, error)
                                                : make_client_path(pcx, job, resource, error);
}

size_t CrLfCorrection(char* text, size_t length) {
    const size_t end = length == 0 ? 0 : strnlen(text, length);
    size_t kept = 0;
    for (size_t i = 0; i < end; ++i) {
        if (text[i] == '\r' && i + 1 < end && text[i + 1] == '\n') {
            continue;
        }
        text[kept++] = text[i];
    }
    return kept;
}

int CreateResourceFile(EX_PCX*, const resource_item& resource, std::span<const unsigned char> data,
                       char fileType, qx7_error* error) {
    const resource_job* job = resource_first_job(resource);
    if (job == nullptr) {
        return qx_error_set(error, -1, 0, number_resource_file_failed, "%d:%s/%s|%.400s|empty job list|",
                            resource.client, resource.object_name.c_str(), resource.resource_name.c_str(),
                            resource.file_path.c_str());
    }
    std::vector<unsigned char> text;
    if (fileType == RESOURCE_TEXT) {
        text.assign(data.begin(), data.end());
        AreaConv(text.data(), text.size(), job->cCodeTab);
        text.resize(CrLfCorrection(reinterpret_cast<char*>(text.data()), text.size()));
        data = text;
    }
    const bool agents_own = resource.cache_type == RESOURCE_CLIENT && hardened();
    if (agents_own && !way_is_agents(resource.file_path)) {
        return file_failed(error, resource, EPERM);
    }
    const mode_t mode = resource.cache_type == RESOURCE_TASK ? task_mode
                        : agents_own                         ? hardened_mode
                                                             : client_file_mode;
    const char* user = agents_own ? "" : job->jp_userName;
    if (!agents_own && *user == 0) {
        return file_failed(error, resource, EPERM);  // an unknown user must not become the agent
    }
    if (resource.cache_type == RESOURCE_CLIENT) {
        remove_old_version(resource);
    }
    const int failed = write_file(resource, user, mode, data);
    if (failed == 0) {
        return 0;
    }
    qx7_error ignored;  // the failure that counts is the first
    (void)RemoveWithEffUser(user, resource.file_path.c_str(), &ignored);
    return file_failed(error, resource, failed);
}

int DeleteTaskResourceFiles(resource_job* job, qx7_error* error) {
    qx7_error first;
    // Taken off first: a second call must not meet them again.
    const resource_list items = std::move(job->jp_used_task_resource_list);
    job->jp_used_task_resource_list.clear();
    if (job->jp_userName[0] != 0) {  // without a name the agent's own rights would do it
        for (const resource_item& item : items) {
            delete_task_file(job, item, &first);
            delete_folders_of(job, item);
        }
        delete_task_directory(job, &first);
    }
    *error = first;
    return first.qx_msgnr == 0 ? 0 : -1;
}
