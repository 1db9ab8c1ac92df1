#include "jobs/job_table.h"

#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>
#include <utility>

#include "base/memory.h"
#include "channels/ccm.h"
#include "identity/accounts.h"
#include "jobs/job_time.h"
#include "launch/launch_settings.h"

namespace {

using job_key = std::pair<int, uint16_t>;

// Sorted, since the order of the table is the order of checks and messages.
std::map<job_key, std::unique_ptr<JP_AREA>> table;
std::unordered_multimap<uint32_t, JP_AREA*> by_pid;

void index_remove(const JP_AREA* job) {
    const auto range = by_pid.equal_range(job->fork_pid);
    for (auto entry = range.first; entry != range.second; ++entry) {
        if (entry->second == job) {
            by_pid.erase(entry);
            return;
        }
    }
}

void release(JP_AREA* job) {
    job_drop_kept_start(job);
    delete job->ccmaddr;
    job->ccmaddr = nullptr;
}

}  // namespace

JP_AREA* Create_JEntry(int jobNr, uint16_t client) {
    std::unique_ptr<JP_AREA>& place = table[job_key(jobNr, client)];
    if (place == nullptr) {
        place = std::make_unique<JP_AREA>();
        JP_AREA* job = place.get();
        job->JP_jobNr = jobNr;
        job->JP_Mandant = client;
        job_set_text(job->JP_srv_msg, "RECV_SRV_AKTJ   ");
        job_set_text(job->JP_client_msg, "MLD_ACCEPT      ");
        memset(job->JP_jClass, ' ', sizeof job->JP_jClass);
        memset(job->JP_jPrio, ' ', sizeof job->JP_jPrio);
        memset(job->infoText, ' ', sizeof job->infoText);
        memset(job->JP_MeldVers, ' ', sizeof job->JP_MeldVers - 1);
        job_time_now(&job->JP_cTime_t, &job->JP_cTime);
    }
    return place.get();
}

JP_AREA* Find_JEntry(int jobNr, uint16_t client) {
    const auto found = table.find(job_key(jobNr, client));
    return found == table.end() ? nullptr : found->second.get();
}

JP_AREA* Next_JEntry(int jobNr, uint16_t client) {
    const auto next = table.upper_bound(job_key(jobNr, client));
    return next == table.end() ? nullptr : next->second.get();
}

int Erase_JEntry(int jobNr, uint16_t client) {
    const auto found = table.find(job_key(jobNr, client));
    if (found == table.end()) {
        return -1;
    }
    index_remove(found->second.get());
    release(found->second.get());
    table.erase(found);
    return 0;
}

void Reset_JTab() {
    by_pid.clear();
    for (auto& entry : table) {
        release(entry.second.get());
    }
    table.clear();
}

int jpGetJobCount() {
    return static_cast<int>(table.size());
}

void job_table_set_pid(JP_AREA* job, uint32_t pid) {
    if (job->fork_pid != 0) {
        index_remove(job);
    }
    job->fork_pid = pid;
    if (pid != 0) {
        by_pid.emplace(pid, job);
    }
}

JP_AREA* job_table_find_pid(uint32_t pid, const JP_AREA* except) {
    if (pid == 0) {
        return nullptr;
    }
    const auto range = by_pid.equal_range(pid);
    for (auto entry = range.first; entry != range.second; ++entry) {
        if (entry->second != except) {
            return entry->second;
        }
    }
    return nullptr;
}

JP_AREA* job_table_find_child(uint32_t pid) {
    // Under batch start fork_pid is a status and may equal the id of some child.
    if (pid == 0 || launch_context()->JobStartType == JOB_START_BATCH) {
        return nullptr;
    }
    const auto range = by_pid.equal_range(pid);
    for (auto entry = range.first; entry != range.second; ++entry) {
        const int flag = entry->second->JP_flag;
        if ((flag & (job_flag_own_child | job_flag_end_taken | job_flag_process_reaped)) ==
            job_flag_own_child) {
            return entry->second;
        }
    }
    return nullptr;
}

bool CheckPidJEntry(int* jobNr, uint16_t* client, uint32_t pid) {
    const JP_AREA* job = job_table_find_pid(pid);
    if (job == nullptr) {
        return false;
    }
    *jobNr = job->JP_jobNr;
    *client = job->JP_Mandant;
    return true;
}

void job_drop_kept_start(JP_AREA* job) {
    if (!job->ccmmsg.empty()) {
        qx_wipe(job->ccmmsg.data(), job->ccmmsg.size());
        job->ccmmsg = {};
    }
    if (job->passwd != nullptr) {
        delete job->passwd;
        job->passwd = nullptr;
    }
}
