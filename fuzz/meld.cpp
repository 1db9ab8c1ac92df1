// What a job messenger, or whoever passes for one, may send: the content of a MELD, told to jobs in every
// state, and the status that follows from it. The first byte chooses state, start type and uid; the rest is
// the message. The last bytes of a report line by line go the same way, since a job writes those itself.
#include "jobs/meld.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "channels/messages.h"
#include "jobs/job_table.h"
#include "jobs/report_scan.h"
#include "jobs/supervision.h"
#include "launch/launch_settings.h"
#include "log/log.h"
#include "messages/conversion.h"
#include "messages/records_meld.h"

namespace {

constexpr int run_number = 1;
constexpr uint16_t client = 100;

msgconv_ctx_t conversion;

EX_PCX& context() {
    static EX_PCX pcx;
    if (GlbPcx == nullptr) {
        GlbPcx = &pcx;
        __log_set_logger(log_dummy);
        pcx.running_mode = MODE_AGENT;
        pcx.Per_JobCheck = 30;
        pcx.pcx_run_uid = pcx.pcx_run_euid = geteuid();
        msgconv_open(&conversion, nullptr, nullptr, nullptr, nullptr, nullptr, 1);
        pcx.pcx_msgctx = &conversion;
        // Lines of text would fill the fuzzer's own output.
        if (freopen("/dev/null", "w", stdout) == nullptr || ccm_open(&pcx, &pcx.ccm, nullptr) != 0) {
            abort();
        }
    }
    return pcx;
}

JP_AREA* make_job(unsigned choice) {
    launch_context()->JobStartType = "FVB"[choice % 3];
    JP_AREA* job = Create_JEntry(run_number, client);
    job->JP_status = "WRCKEAV"[choice / 3 % 7];
    job->jp_uid = geteuid();
    if (choice / 21 % 2 != 0) {
        job->JP_create = JOB_ORIGIN_QUERY;
        job->JP_flag = 0;
    }
    return job;
}

// Whatever a messenger said, the server must be able to read it.
void status_passes(EX_PCX& pcx, JP_AREA* job) {
    std::vector<unsigned char> body = job_build_exstaj(&pcx, job, true).bytes();
    msg_error error;
    if (ToLAN(body.data(), body.size(), &conversion, 0, nullptr, &error) != walk_accepted) {
        free_warning_list(&error);
        abort();
    }
}

void scan(JP_AREA* job, std::string_view text) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        ChkRprtRec(job, text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    EX_PCX& pcx = context();
    JP_AREA* job = make_job(data[0]);
    std::vector<unsigned char> message(data + 1, data + size);
    if (message.size() >= meld_record_offset + sizeof(int32_t)) {
        // Head and run number are set right, so that the job is found.
        QX_HEADM head;
        CreateQxHeadm(&head, "MELD", client, 0);
        set_message_version(&head, 3);
        memcpy(message.data(), &head, sizeof head);
        const int32_t number = run_number;
        memcpy(message.data() + meld_record_offset, &number, sizeof number);
    }
    const bool taken = (job->JP_flag & job_flag_end_taken) != 0;
    const char before = job->JP_status;
    job_take_meld(&pcx, message.data(), message.size(), data[0] / 42 == 5 ? meld_unknown_uid : geteuid());
    if (taken && job->JP_status != before) {
        abort();
    }
    status_passes(pcx, job);
    scan(job, std::string_view(reinterpret_cast<const char*>(message.data()), message.size()));
    status_passes(pcx, job);
    Erase_JEntry(run_number, client);
    ccm_msg_emptying_queues(pcx.ccm);
    return 0;
}
