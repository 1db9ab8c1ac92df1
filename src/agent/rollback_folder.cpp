#include "agent/rollback_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "log/log.h"

namespace {

constexpr int seconds_of_a_day = 86400;

// Names of the directories in `dir`; links do not count. -1 with `error`.
int read_directories(const std::string& dir, std::vector<std::string>* names, qx7_error* error) {
    qx_directory reader(DirOpen(dir.c_str()));
    if (reader.dir == nullptr) {
        return file_error(error, "DirOpen()", dir.c_str(), errno);
    }
    while (const char* name = DirReadNext(reader.dir)) {
        struct stat status;
        const std::string path = dir + "/" + name;
        if (lstat(path.c_str(), &status) != 0) {
            qx7_error failure;
            file_error(&failure, "GetStatBuf()", path.c_str(), errno);
            __log_error(failure);
        } else if (S_ISDIR(status.st_mode)) {
            names->emplace_back(name);
        }
    }
    return 0;
}

// The next day at the server's time, by the wall clock: days have 23 to 25 hours.
time_t next_run(const EX_PCX* pcx, time_t today) {
    tm local{};
    if (!qx_localtime(today, &local)) {
        return today + seconds_of_a_day;
    }
    ++local.tm_mday;
    local.tm_hour = pcx->pcx_rb_check_hh;
    local.tm_min = pcx->pcx_rb_check_mm;
    local.tm_sec = pcx->pcx_rb_check_ss;
    local.tm_isdst = -1;
    const time_t next = qx_mktime(&local);
    return next > today ? next : today + seconds_of_a_day;
}

// Today's run when it still lies ahead, tomorrow's otherwise.
time_t first_run(const EX_PCX* pcx, time_t now) {
    const time_t before = next_run(pcx, now - seconds_of_a_day);
    return before > now ? before : next_run(pcx, now);
}

}  // namespace

void rb_maintenance(EX_PCX* pcx, time_t now) {
    if (pcx->pcx_rb_life < 1 || pcx->pcx_rb_dir[0] == 0) {
        return;
    }
    if (pcx->rb_cleanup_time == 0) {
        pcx->rb_cleanup_time = first_run(pcx, now);
        return;
    }
    if (pcx->rb_cleanup_time <= now) {
        qx7_error error;
        const int days = std::min<int>(pcx->pcx_rb_life, INT_MAX / seconds_of_a_day);  // the server's number
        if (rb_FolderCleanup(pcx, days * seconds_of_a_day, &error) < 0) {
            __log_error(error);
        }
    }
}

int rb_FolderCleanup(EX_PCX* pcx, int life, qx7_error* error) {
    qx_error_clear(error);
    const time_t now = time(nullptr);
    pcx->rb_cleanup_time = next_run(pcx, now);
    tm due{};
    if (!qx_localtime(now - life, &due)) {
        return call_error(error, "localtime_r", EOVERFLOW);
    }
    char dueDate[48];
    snprintf(dueDate, sizeof dueDate, "%.4d%.2d%.2d", due.tm_year + 1900, due.tm_mon + 1, due.tm_mday);
    return rb_expiredDirsCheck(pcx->pcx_rb_dir, dueDate, error);
}

int rb_expiredDirsCheck(const char* dir, const char* dueDate, qx7_error* error) {
    qx_error_clear(error);
    std::vector<std::string> groups;
    if (read_directories(dir, &groups, error) != 0) {
        return -1;
    }
    int removed = 0;
    for (const std::string& group : groups) {
        const std::string path = std::string(dir) + "/" + group;
        std::vector<std::string> days;
        qx7_error failure;
        if (read_directories(path, &days, &failure) != 0) {
            __log_error(failure);
            continue;
        }
        for (const std::string& day : days) {
            if (day.compare(dueDate) > 0) {
                continue;
            }
            const int count = rb_expiredDirsRemove((path + "/" + day).c_str(), &failure);
            if (count < 0) {
                __log_error(failure);
            } else {
                removed += count;
            }
        }
    }
    return removed;
}

int rb_expiredDirsRemove(const char* dir, qx7_error* error) {
    qx_error_clear(error);
    std::vector<std::string> parts;
    if (read_directories(dir, &parts, error) != 0) {
        return -1;
    }
    int removed = 0;
    for (const std::string& part : parts) {
        const std::string path = std::string(dir) + "/" + part;
        const int count = remove_allDirfiles(path.c_str(), error);
        if (count < 0) {
            return -1;
        }
        removed += count;
        if (rmdir(path.c_str()) != 0) {
            return file_error(error, "rmdir()", path.c_str(), errno);
        }
    }
    if (rmdir(dir) != 0) {
        return file_error(error, "rmdir()", dir, errno);
    }
    return removed;
}
