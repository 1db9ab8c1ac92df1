// Which job needs which stored resource: from the rows of an activation to the day when nobody needs it.
#include "resources/resources.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/context.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "identity/accounts.h"
#include "log/log.h"
#include "messages/records_job.h"
#include "messages/timestamp.h"
#include "resources/resource_files.h"

namespace {

resource_state the_resources;
resource_owner owner = {};

// A row as it is wanted, its place on this host worked out.
struct wanted_resource {
    std::string object;
    std::string name;
    std::string path;
    long timestamp = 0;
    char type = RESOURCE_CLIENT;
};

int bad_path(const resource_job* job, std::string_view told, qx7_error* error) {
    return qx_error_set(error, -1, EPERM, number_cache_failed, "%d:%.200s|%.500s|%d - %s", job->JP_Mandant,
                        job->JP_oName, std::string(told).c_str(), EPERM, error_text(EPERM).c_str());
}

int read_row(const resource_job* job, const MSG_TYPE_BINTAB& row, wanted_resource* wanted, qx7_error* error) {
    wanted->object = get_text(row.object_name);
    wanted->name = get_text(row.resource_name);
    wanted->timestamp = timestamp_seconds_local(row.mod_date);
    wanted->type = row.cache_type;
    const std::string file(get_text(row.file_name));
    if (wanted->type != RESOURCE_TASK && wanted->type != RESOURCE_CLIENT) {
        return qx_error_set(error, 1, EINVAL, number_resource_failed, "%.400s|%d - %s|", file.c_str(), EINVAL,
                            error_text(EINVAL).c_str());
    }
    const std::string& folder =
        wanted->type == RESOURCE_TASK ? job->jp_task_cache_path : job->jp_client_cache_path;
    if (folder.empty()) {
        return bad_path(job, folder, error);
    }
    wanted->path = path_clean(folder + file);  // one spelling: by it jobs find what they share
    if (!resource_name_is_safe(file)) {
        return qx_error_set(error, -1, EPERM, number_resource_file_failed, "%d:%s/%s|%.400s|%d - %s|",
                            job->JP_Mandant, wanted->object.c_str(), wanted->name.c_str(),
                            wanted->path.c_str(), EPERM, error_text(EPERM).c_str());
    }
    return 0;
}

key_entry entry_of(const resource_job* job, int key) {
    return {key, job->JP_jobNr, job->JP_Mandant};
}

resource_item* AddResourceToList(resource_list* list, const resource_job* job, const wanted_resource& wanted,
                                 char usage) {
    resource_item& item = list->emplace_front();
    item.object_name = wanted.object;
    item.resource_name = wanted.name;
    item.file_path = wanted.path;
    item.ah_idnr = job->JP_jobNr;
    item.client = job->JP_Mandant;
    item.usr_idnr = static_cast<int>(job->jp_headm.i4UsrIdNr);
    item.key = resource_context()->res_key++;
    item.timestamp = wanted.timestamp;
    item.start_timestamp = item.end_timestamp = time(nullptr);
    item.cache_type = wanted.type;
    item.usage_type = usage;
    AddItemToList(&item.job_list, entry_of(job, item.key));
    return &item;
}

// The same client resource at the same place.
resource_item* find_shared(resource_list* list, const resource_job* job, const wanted_resource& wanted) {
    for (resource_item& item : *list) {
        if (item.cache_type == RESOURCE_CLIENT && item.client == job->JP_Mandant &&
            item.file_path == wanted.path && item.object_name == wanted.object &&
            item.resource_name == wanted.name) {
            return &item;
        }
    }
    return nullptr;
}

void join(resource_item* item, resource_job* job, std::vector<key_entry>* keys) {
    AddItemToList(&item->job_list, entry_of(job, item->key));
    AddItemToList(keys, entry_of(job, item->key));
}

int request_new(EX_PCX* pcx, resource_job* job, const wanted_resource& wanted, char usage, qx7_error* error) {
    resource_item* item = AddResourceToList(&resource_context()->requested_resource_list, job, wanted, usage);
    join(item, job, &job->jp_requested_resource_list);
    return SendBinGetMessage(pcx, item, error);
}

int join_requested(EX_PCX* pcx, resource_job* job, const wanted_resource& wanted, resource_item* item,
                   qx7_error* error) {
    join(item, job, &job->jp_requested_resource_list);
    if (item->timestamp >= wanted.timestamp) {
        return 0;
    }
    item->timestamp = wanted.timestamp;
    return SendBinGetMessage(pcx, item, error);
}

void join_waiting(resource_job* job, const wanted_resource& wanted, resource_item* item) {
    join(item, job, &job->jp_requested_resource_list);
    item->timestamp = std::max(item->timestamp, wanted.timestamp);
}

// The file on disk is the one that is wanted.
void use_existing(resource_job* job, const wanted_resource& wanted, resource_item* used) {
    if (used == nullptr) {
        used = AddResourceToList(&resource_context()->used_resource_list, job, wanted, RESOURCE_EXISTED);
    }
    join(used, job, &job->jp_used_client_resource_list);
}

// Other jobs run with another version: the new one must not take the file away from them.
void wait_for_users(resource_job* job, const wanted_resource& wanted, resource_item* used) {
    resource_item* item =
        AddResourceToList(&resource_context()->waiting_resource_list, job, wanted, RESOURCE_UPDATE);
    item->resource_key = used->key;
    used->resource_key = item->key;
    join(item, job, &job->jp_requested_resource_list);
}

int read_client_row(EX_PCX* pcx, resource_job* job, const wanted_resource& wanted, qx7_error* error) {
    resource_state* context = resource_context();
    long modified = 0;
    const bool there = resource_stat(wanted.path, &modified) == 0;
    if (!there && errno != ENOENT && errno != ENOTDIR) {
        const int error_number = errno;
        return qx_error_set(error, 1, error_number, number_resource_failed, "%.400s|%d - %s|",
                            wanted.path.c_str(), error_number, error_text(error_number).c_str());
    }
    resource_item* used = find_shared(&context->used_resource_list, job, wanted);
    // An order that names two versions must not wait for itself.
    const bool used_by_others = used != nullptr && std::any_of(used->job_list.begin(), used->job_list.end(),
                                                               [&](const key_entry& entry) {
                                                                   return entry.ah_idnr != job->JP_jobNr;
                                                               });
    if (there && modified == wanted.timestamp) {
        use_existing(job, wanted, used);
        return 0;
    }
    // Whatever is on its way already is shared, so that one BIN_GET serves all.
    if (resource_item* item = find_shared(&context->requested_resource_list, job, wanted)) {
        return join_requested(pcx, job, wanted, item, error);
    }
    if (resource_item* item = find_shared(&context->waiting_resource_list, job, wanted)) {
        join_waiting(job, wanted, item);
        return 0;
    }
    if (there && used_by_others) {
        wait_for_users(job, wanted, used);
        return 0;
    }
    return request_new(pcx, job, wanted, there ? RESOURCE_UPDATE : RESOURCE_NEW, error);
}

// ---- Leaving ----

// Takes the job off the resource's list; false when it was the last one.
bool wanted_without(const resource_job* job, resource_item* item) {
    RemoveEntryFromList(&item->job_list, job->JP_jobNr, job->JP_Mandant);
    if (item->job_list.empty()) {
        return false;
    }
    item->ah_idnr = item->job_list.front().ah_idnr;
    return true;
}

void leave_awaited(resource_state* context, const key_entry& key, const resource_job* job) {
    resource_list* list = &context->requested_resource_list;
    resource_item* item = FindResourceWithKey(list, key.key);
    if (item == nullptr) {
        list = &context->waiting_resource_list;
        item = FindResourceWithKey(list, key.key);
    }
    if (item == nullptr) {
        return;
    }
    if (wanted_without(job, item)) {
        return;
    }
    if (resource_item* partner = FindResourceWithKey(&context->used_resource_list, item->resource_key)) {
        partner->resource_key = 0;
    }
    RemoveResourceFromList(list, key.key);
}

// The old version is free: its successor is asked for.
void request_waiting(EX_PCX* pcx, resource_state* context, int key) {
    resource_list taken = GetResourceFromList(&context->waiting_resource_list, key);
    if (taken.empty()) {
        return;
    }
    taken.front().resource_key = 0;
    context->requested_resource_list.splice(context->requested_resource_list.begin(), taken);
    qx7_error error;
    if (SendBinGetMessage(pcx, &context->requested_resource_list.front(), &error) != 0) {
        __log_error(error);
        taken = GetResourceFromList(&context->requested_resource_list, key);
        CancelAllJobsWaitingForThisResource(pcx, &taken.front(), error.qx_msgnr, error.qx_msgInsert);
    }
}

void leave_used(EX_PCX* pcx, resource_state* context, const key_entry& key, const resource_job* job) {
    resource_item* item = FindResourceWithKey(&context->used_resource_list, key.key);
    if (item == nullptr) {
        return;
    }
    if (wanted_without(job, item)) {
        return;
    }
    const int successor = item->resource_key;
    RemoveResourceFromList(&context->used_resource_list, key.key);  // the file stays on disk
    if (successor != 0) {
        request_waiting(pcx, context, successor);
    }
}

}  // namespace

void resources_belong_to(const resource_owner& jobs) {
    owner = jobs;
}

const resource_owner& resource_jobs() {
    return owner;
}

resource_state* resource_context() {
    return &the_resources;
}

resource_job* resource_job_of(const key_entry& entry) {
    return owner.find(entry.ah_idnr, static_cast<uint16_t>(entry.client));
}

resource_job* resource_first_job(const resource_item& resource) {
    return resource.job_list.empty() ? nullptr : resource_job_of(resource.job_list.front());
}

int job_read_resources(EX_PCX* pcx, resource_job* job, message_view view, const MSG_TYPE_EXAKTJ& record,
                       qx7_error* error) {
    if (record.binpaths_dist == 0 || record.binpaths_entries == 0) {
        return 0;
    }
    table_cursor paths = view_table(view, record.binpaths_dist);
    const auto told = cursor_record<MSG_TYPE_BINPATHS>(&paths);
    const std::string_view task = get_text(told.task_cache_path);
    const std::string_view client = get_text(told.client_cache_path);
    const bool task_good = resource_take_path(pcx, task, &job->jp_task_cache_path);
    const bool client_good = resource_take_path(pcx, client, &job->jp_client_cache_path);
    if (record.bintab_dist == 0 || record.bintab_entries < 1) {
        return 0;
    }
    // A kind that the server does not use may come without its path.
    if ((!task_good && !task.empty()) || (!client_good && !client.empty())) {
        return bad_path(job, task_good ? client : task, error);
    }
    table_cursor rows = view_table(view, record.bintab_dist);
    for (int32_t count = record.bintab_entries; count > 0; --count) {
        const auto row = cursor_record<MSG_TYPE_BINTAB>(&rows);
        if (rows.failed) {
            return qx_error_set(error, 1, EINVAL, number_resource_failed, "BINTAB|%d - %s|", EINVAL,
                                error_text(EINVAL).c_str());
        }
        if (ReadStorageObjectResource(pcx, job, row, error) != 0) {
            return -1;
        }
    }
    return 0;
}

int ReadStorageObjectResource(EX_PCX* pcx, resource_job* job, const MSG_TYPE_BINTAB& row, qx7_error* error) {
    wanted_resource wanted;
    int result = read_row(job, row, &wanted, error);
    if (result == 0) {
        result = wanted.type == RESOURCE_TASK ? request_new(pcx, job, wanted, RESOURCE_NEW, error)
                                              : read_client_row(pcx, job, wanted, error);
    }
    if (result == 0) {
        return 0;
    }
    qx7_error second;
    if (RemoveJobFromResourceLists(pcx, job, &second) != 0) {
        __log_error(second);
    }
    return -1;
}

int RemoveJobFromResourceLists(EX_PCX* pcx, resource_job* job, qx7_error* error) {
    resource_state* context = resource_context();
    // Taken off the job first: cancelling others may come back here.
    const std::vector<key_entry> awaited = std::move(job->jp_requested_resource_list);
    const std::vector<key_entry> used = std::move(job->jp_used_client_resource_list);
    job->jp_requested_resource_list.clear();
    job->jp_used_client_resource_list.clear();
    for (const key_entry& key : awaited) {
        leave_awaited(context, key, job);
    }
    for (const key_entry& key : used) {
        leave_used(pcx, context, key, job);
    }
    const int result = DeleteTaskResourceFiles(job, error);
    job->jp_task_cache_path.clear();
    return result;
}

void CancelAllJobsWaitingForThisResource(EX_PCX* pcx, resource_item* resource, int msgnr,
                                         const char* insert) {
    // A copy: each job takes itself off the list.
    const std::vector<key_entry> jobs = std::move(resource->job_list);
    resource->job_list.clear();
    for (const key_entry& entry : jobs) {
        resource_job* job = resource_job_of(entry);
        if (job == nullptr) {
            continue;
        }
        qx7_error error;
        if (DeleteTaskResourceFiles(job, &error) != 0) {
            __log_error(error);
        }
        owner.refuse(pcx, job, msgnr, insert);
        if (RemoveJobFromResourceLists(pcx, job, &error) != 0) {
            __log_error(error);
        }
        owner.erase(job);
    }
}
