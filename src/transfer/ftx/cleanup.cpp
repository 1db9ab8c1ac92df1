// Old status stores: removed once a day, at the time that the server names.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "base/context.h"
#include "base/error_text.h"
#include "base/text.h"
#include "base/time.h"
#include "log/log.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/store.h"

namespace {

constexpr time_t day = 86400;
time_t ftx_cleanup_time = 0;

struct directory_closer {
    void operator()(DIR* folder) const { closedir(folder); }
};

// A file that has gone meanwhile is no failure.
int remove_old(DIR* folder, const char* name, time_t before) {
    struct stat facts {};
    if (fstatat(dirfd(folder), name, &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    if (!S_ISREG(facts.st_mode) || facts.st_mtime >= before) {
        return 0;
    }
    return unlinkat(dirfd(folder), name, 0) == 0 || errno == ENOENT ? 0 : -1;
}

bool is_store(std::string_view name) {
    return MyStrMatch(name, "*.sts") != 0 || MyStrMatch(name, "*.sts.bad") != 0 ||
           MyStrMatch(name, "*.ftx") != 0;
}

// Removes what it can; the first failure is told.
int ssfileCleanup(const char* path, time_t before, qx7_error* err) {
    const std::unique_ptr<DIR, directory_closer> folder(opendir(path));
    if (folder == nullptr) {
        return file_error(err, "opendir()", path, errno);
    }
    int result = 0;
    errno = 0;
    while (const dirent* const one = readdir(folder.get())) {
        if (is_store(one->d_name) && remove_old(folder.get(), one->d_name, before) != 0 && result == 0) {
            result = file_error(err, "unlink()", std::string(path) + "/" + one->d_name, errno);
        }
        errno = 0;
    }
    return errno == 0 || result != 0 ? result : file_error(err, "readdir()", path, errno);
}

}  // namespace

time_t ss_cleanup_due() {
    return ftx_cleanup_time;
}

void ss_set_cleanup_time(time_t now) {
    tm local;
    if (!qx_localtime(now, &local)) {
        ftx_cleanup_time = now + day;
        return;
    }
    const FTX_GLB& glb = ftx_glb();
    local.tm_hour = glb.ft_rst_check_hh;
    local.tm_min = glb.ft_rst_check_mm;
    local.tm_sec = glb.ft_rst_check_ss;
    const time_t today = qx_mktime(&local);
    ftx_cleanup_time = today > now ? today : today + day;
}

int ss_ftxCleanup(EX_PCX* pcx, int life_days, qx7_error* err) {
    const time_t now = pcx->UB_Time;
    ss_set_cleanup_time(now);
    if (life_days <= 0) {
        return 1;
    }
    qx7_error own;
    qx7_error* const error = err == nullptr ? &own : err;
    if (ssfileCleanup(pcx->pcx_OutFolder, now - life_days * day, error) != 0) {
        __log_error(*error);
        return -1;
    }
    return 1;
}
