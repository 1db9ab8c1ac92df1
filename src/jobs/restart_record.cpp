// The restart record: written for the server, read back after the agent was started again.
#include <algorithm>
#include <cstring>

#include "jobs/activation.h"
#include "jobs/process_info.h"

namespace {

void put_record_text(char* field, size_t size, std::string_view text) {
    memcpy(field, text.data(), std::min(size, text.size()));
}

// A field need not hold a terminator.
template <size_t size>
std::string record_text(const char (&field)[size]) {
    return std::string(field, strnlen(field, size));
}

}  // namespace

std::vector<unsigned char> CreateJobRstrtInfo(JP_AREA* job, const char* userName, bool server_reachable,
                                              bool fresh_child) {
    if (job->JP_RstInfo == JOB_RECORD_SENT) {
        return {};
    }
    if (server_reachable) {
        job->JP_RstInfo = JOB_RECORD_SENT;
    }
    if (fresh_child) {
        Get_Proc_Attr_own(job);
    } else {
        Get_Proc_Attr(job);
    }
    JP_item item{};
    item.JI_jStart = job->JP_jStart;
    item.JI_pgid = SetCheckPid(job);
    put_record_text(item.JI_jFile, sizeof item.JI_jFile, job->JP_jFile);
    put_record_text(item.JI_jReport, sizeof item.JI_jReport, job->JP_jReport);
    put_record_text(item.JI_oName, sizeof item.JI_oName, job->JP_oName);
    put_record_text(item.JI_task_cache_path, sizeof item.JI_task_cache_path, job->jp_task_cache_path);
    put_record_text(item.JI_userName, sizeof item.JI_userName, userName);
    item.JI_count = static_cast<int32_t>(job->jp_used_task_resource_list.size());

    std::vector<unsigned char> record(sizeof item);
    memcpy(record.data(), &item, sizeof item);
    for (const resource_item& resource : job->jp_used_task_resource_list) {
        const char* name = resource.file_path.c_str();
        record.insert(record.end(), name, name + resource.file_path.size() + 1);
    }
    record.resize(record.size() + job_record_spare);
    return record;
}

bool job_record_read(const unsigned char* bytes, size_t length, job_record* record) {
    constexpr size_t file_names_end = offsetof(JP_item, JI_task_cache_path);
    if (length < file_names_end) {
        return false;
    }
    JP_item item{};
    memcpy(&item, bytes, std::min(length, sizeof item));
    record->jStart = item.JI_jStart;
    record->pgid = item.JI_pgid;
    record->jFile = record_text(item.JI_jFile).substr(0, 255);
    record->jReport = record_text(item.JI_jReport).substr(0, 255);
    record->oName = record_text(item.JI_oName).substr(0, 255);
    // A record without spare bytes was written by a build that did not know what stands behind the file
    // names.
    if (length <= job_record_fixed) {
        return true;
    }
    record->task_cache_path = record_text(item.JI_task_cache_path);
    record->userName = record_text(item.JI_userName);
    const char* at = reinterpret_cast<const char*>(bytes) + job_record_fixed;
    const char* end = reinterpret_cast<const char*>(bytes) + length;
    for (int32_t count = item.JI_count; count > 0; --count) {
        const char* stop = static_cast<const char*>(memchr(at, 0, static_cast<size_t>(end - at)));
        if (stop == nullptr) {
            break;
        }
        record->resNames.emplace_back(at, stop);
        at = stop + 1;
    }
    return true;
}
