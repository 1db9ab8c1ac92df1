#include "jobs/resources.h"

#include "base/error.h"
#include "jobs/job_area.h"

namespace {

constexpr int number_stat_failed = 2000244;

}  // namespace

int ReadStorageObjectResource(EX_PCX*, JP_AREA* job, const char* object_name, const char* resource_name,
                              qx7_error* error) {
    return qx_error_set(error, 1, 0, number_stat_failed,
                        "%s:%s|%d - this agent keeps no resources for job %d|", object_name, resource_name, 0,
                        job->JP_jobNr);
}

int DeleteTaskResourceFiles(JP_AREA* job, qx7_error* error) {
    qx_error_clear(error);
    job->jp_used_task_resource_list.clear();
    return 0;
}

int RemoveJobFromResourceLists(EX_PCX*, JP_AREA* job, qx7_error* error) {
    qx_error_clear(error);
    job->jp_requested_resource_list.clear();
    job->jp_used_client_resource_list.clear();
    job->jp_used_task_resource_list.clear();
    job->jp_task_cache_path.clear();
    return 0;
}
