#include "agent/message_error.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/ccm.h"
#include "jobs/job_table.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/conversion.h"

namespace {

constexpr int most_files = 100;

// The new file, or -1 with errno. Not while a thread stands as another user: the file would be his.
int create_file(const EX_PCX* pcx, char* path, size_t size) {
    const int length = snprintf(path, size, "%s/msgerr_XXXXXX", pcx->pcx_TmpFolder);
    if (length < 0 || static_cast<size_t>(length) >= size) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (!try_effUserLock()) {
        errno = EAGAIN;
        return -1;
    }
    const int fd = mkostemp(path, O_CLOEXEC);
    const int number = errno;
    reset_effUserLock();
    if (fd >= 0 && fchmod(fd, 0644) != 0) {
        file_error(nullptr, "fchmod()", path, errno);  // readable for its owner at least
    }
    errno = number;
    return fd;
}

void dump_jobs() {
    for (const JP_AREA* job = Next_JEntry(-1, 0); job != nullptr;
         job = Next_JEntry(job->JP_jobNr, job->JP_Mandant)) {
        _TraceText("job %d client %u status '%c' flag %d user '%s' server '%s' messenger '%s' process %u",
                   job->JP_jobNr, job->JP_Mandant, job->JP_status, job->JP_flag, job->JP_user,
                   job->JP_srv_msg, job->JP_client_msg, job->fork_pid);
    }
}

void dump_tables(const EX_PCX* pcx) {
    trcdump("EX_PCX", pcx, static_cast<int>(sizeof *pcx));
    if (pcx->ccm != nullptr) {
        _TraceText("channels %d, to servers %d, to agents %d, messages to send %d",
                   ccm_get_nof_channels(pcx->ccm), ccm_get_nof_server_connections(pcx->ccm),
                   ccm_get_nof_agent_connections(pcx->ccm), ccm_get_sendq_count(pcx->ccm));
    }
    dump_jobs();
}

}  // namespace

void message_error_action(char* buffer, size_t size) {
    static std::atomic<int> files = 0;
    copy_text(buffer, size, "");
    EX_PCX* pcx = GetGlbPcx();
    if (pcx == nullptr || files.fetch_add(1) >= most_files) {
        files.store(most_files);
        return;
    }
    char path[qx_path_size];
    const int fd = create_file(pcx, path, sizeof path);
    PZUTRACE file = fd < 0 ? nullptr : ZUTRACE_OpenDescriptor(fd);
    if (file == nullptr) {
        __log(number_file_call, "%s", call_insert("mkstemp()", path, errno).c_str());
        return;
    }
    // The lock is held from the first to the last line, so that no other thread's lines get into this file.
    // Nothing is logged meanwhile: the log lock comes before this one.
    set_traceLock();
    const PZUTRACE former = trc_swap_handle(pcx, file);
    msgconv_dump_failed_message();
    if (on_main_thread()) {
        dump_tables(pcx);  // other threads must not look at them
    }
    trc_swap_handle(pcx, former);
    reset_traceLock();
    ZUTRACE_Close(file);
    copy_text(buffer, size, path);
}
