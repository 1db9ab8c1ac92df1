// What a server may send about stored resources: rows of an activation, and BIN_DATA for what is awaited. The
// first byte chooses kinds and text; the next decide how much of the rest is the row, the remainder is the
// message, whose head and names are set right so that it meets the resource. Whatever comes, files appear
// below the cache folder only, and the lists fit each other.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/error.h"
#include "base/text.h"
#include "channels/messages.h"
#include "identity/accounts.h"
#include "jobs/activation.h"
#include "jobs/job_table.h"
#include "log/log.h"
#include "messages/conversion.h"
#include "messages/records_report.h"
#include "resources/resource_files.h"
#include "resources/resources.h"

namespace {

constexpr int run_number = 1;
constexpr uint16_t client = 100;

msgconv_ctx_t conversion;
std::string folder;

EX_PCX& context() {
    static EX_PCX pcx;
    if (GlbPcx == nullptr) {
        GlbPcx = &pcx;
        __log_set_logger(log_dummy);
        pcx.running_mode = MODE_AGENT;
        pcx.pcx_run_uid = pcx.pcx_run_euid = geteuid();
        char name[128];
        qx7_error error;
        getOwnUserName(name, sizeof name, &error);
        copy_text(pcx.pcx_runUserName, name);
        char pattern[] = "/tmp/qx-fuzz-XXXXXX";
        folder = mkdtemp(pattern) == nullptr ? "" : pattern;
        copy_text(pcx.pcx_res_dir, folder + "/cache");
        msgconv_open(&conversion, nullptr, nullptr, nullptr, nullptr, nullptr, 1);
        pcx.pcx_msgctx = &conversion;
        atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(folder, ignored);
        });
        // Lines of text would fill the fuzzer's own output.
        if (folder.empty() || freopen("/dev/null", "w", stdout) == nullptr ||
            ccm_open(&pcx, &pcx.ccm, nullptr) != 0) {
            abort();
        }
    }
    return pcx;
}

JP_AREA* make_job(EX_PCX& pcx) {
    job_own_resources();
    JP_AREA* job = Create_JEntry(run_number, client);
    job->jp_uid = geteuid();
    job_set_text(job->jp_userName, pcx.pcx_runUserName);
    job->jp_client_cache_path = folder + "/cache/clients/";
    job->jp_task_cache_path = folder + "/cache/tasks/1/";
    for (int i = 0; i < 256; ++i) {
        job->cCodeTab[i] = static_cast<unsigned char>(i);
    }
    return job;
}

void fill(void* record, size_t size, const uint8_t* data, size_t available) {
    memcpy(record, data, std::min(size, available));
}

// Nothing beside the cache folder, whatever the names were.
void nothing_outside() {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().filename() != "cache") {
            abort();
        }
    }
}

// Each key of the job is in exactly one list.
void lists_fit(const JP_AREA* job) {
    resource_state* lists = resource_context();
    for (const key_entry& key : job->jp_requested_resource_list) {
        if (FindResourceWithKey(&lists->requested_resource_list, key.key) == nullptr &&
            FindResourceWithKey(&lists->waiting_resource_list, key.key) == nullptr) {
            abort();
        }
    }
    for (const key_entry& key : job->jp_used_client_resource_list) {
        if (FindResourceWithKey(&lists->used_resource_list, key.key) == nullptr) {
            abort();
        }
    }
}

void give(EX_PCX& pcx, const MSG_TYPE_BINTAB& row, const uint8_t* data, size_t size) {
    ccm_msg_t* msg = ccm_msg_alloc_cleared(pcx.ccm, static_cast<int>(size), nullptr);
    if (msg == nullptr) {
        return;
    }
    fill(msg->msg_start, size, data, size);
    if (size >= sizeof(MSG_TYPE_BIN_DATA)) {
        MSG_TYPE_BIN_DATA record;
        memcpy(&record, msg->msg_start, sizeof record);
        CreateQxHeadm(&record.header, "BIN_DATA", client, 0);
        memcpy(record.name, row.resource_name, sizeof record.name);
        memcpy(record.object_name, row.object_name, sizeof record.object_name);
        record.ah_idnr = run_number;
        record.timestamp = {2030, 1, 1, 0, 0, 0, 0};
        memcpy(msg->msg_start, &record, sizeof record);
    }
    ProcessBinDataMessage(&pcx, msg);
    ccm_msg_free(pcx.ccm, msg);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    EX_PCX& pcx = context();
    std::filesystem::create_directory(folder + "/cache");
    pcx.pcx_hardened = data[0] / 8 % 2;
    JP_AREA* job = make_job(pcx);
    // The names first: the row's fields are wide, and a fuzzer shall not have to find their places.
    const size_t name_size = std::min<size_t>(data[1], size - 2);
    MSG_TYPE_BINTAB row{};
    put_text(row.object_name, "FILES");
    put_text(row.resource_name, "name");
    put_text(row.file_name, std::string_view(reinterpret_cast<const char*>(data + 2), name_size));
    row.mod_date = {2020, 1, 1, 0, 0, 0, 0};
    row.cache_type = "CTCX"[data[0] % 4];
    qx7_error error;
    if (ReadStorageObjectResource(&pcx, job, row, &error) == 0) {
        lists_fit(job);
        give(pcx, row, data + 2 + name_size, size - 2 - name_size);
    }
    job = Find_JEntry(run_number, client);
    nothing_outside();
    if (job != nullptr) {
        lists_fit(job);
        RemoveJobFromResourceLists(&pcx, job, &error);
        Erase_JEntry(run_number, client);
    }
    if (!resource_context()->requested_resource_list.empty() ||
        !resource_context()->used_resource_list.empty()) {
        abort();
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder + "/cache", ignored);
    ccm_msg_emptying_queues(pcx.ccm);
    return 0;
}
