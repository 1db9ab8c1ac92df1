// Jobs that could not start when they came: they wait for resources, or for a process that the host has left.
#include "base/context.h"
#include "base/error.h"
#include "base/time.h"
#include "jobs/activation.h"
#include "jobs/job_table.h"
#include "log/log.h"

namespace {

constexpr time_t retry_seconds = 5;

void give_up_start(EX_PCX* pcx, JP_AREA* job) {
    qx7_error error;
    if (DeleteTaskResourceFiles(job, &error) != 0) {
        __log_error(error);
    }
    if (RemoveJobFromResourceLists(pcx, job, &error) != 0) {
        __log_error(error);
    }
    Erase_JEntry(job->JP_jobNr, job->JP_Mandant);
}

}  // namespace

void job_try_deferred_start(EX_PCX* pcx, JP_AREA* job) {
    if (Start_Ex_Aktj(pcx, job) < 1) {
        if (job->jobstart != 0) {
            job->JP_alrmTime = alarm_now() + retry_seconds;
        }
    } else if (job->jobstart != 0) {
        give_up_start(pcx, job);
    }
}

void job_own_resources() {
    resources_belong_to({
        [](int number, uint16_t client) -> resource_job* { return Find_JEntry(number, client); },
        [](EX_PCX* pcx, resource_job* job) { StartJobWhenPossible(pcx, static_cast<JP_AREA*>(job)); },
        [](EX_PCX* pcx, resource_job* job, int msgnr, const char* insert) {
            create_and_send_aktj_quitt_message(pcx, static_cast<JP_AREA*>(job), msgnr, insert);
        },
        [](resource_job* job) { Erase_JEntry(job->JP_jobNr, job->JP_Mandant); },
    });
}

void StartJobWhenPossible(EX_PCX* pcx, JP_AREA* job) {
    if (job->jobstart != 0 && job->jp_requested_resource_list.empty()) {
        job_try_deferred_start(pcx, job);
    }
}
