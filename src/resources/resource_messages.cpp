// BIN_GET and BIN_DATA.
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/context.h"
#include "base/error.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/ccm.h"
#include "channels/messages.h"
#include "channels/outgoing.h"
#include "identity/accounts.h"
#include "log/log.h"
#include "messages/records_report.h"
#include "messages/timestamp.h"
#include "resources/resource_files.h"
#include "resources/resources.h"

namespace {

constexpr int other_type = 2;

constexpr char server_module[] = "QXVAREXR";
constexpr char reply_module[] = "BINDATA ";
// Names another module than the first question does, which a server may use to tell the two apart.
constexpr char reply_module_again[] = "QXEXVAR ";
constexpr int version_first = 1;
constexpr int version_again = 4;

int send_question(EX_PCX* pcx, const resource_item& resource, int version, const char* module,
                  qx7_error* error) {
    message_builder<MSG_TYPE_BIN_GET> question(static_cast<uint16_t>(resource.client),
                                               static_cast<uint32_t>(resource.usr_idnr), version);
    put_text(question->name, resource.object_name);
    put_text(question->subname, resource.resource_name);
    question->ah_idnr = resource.ah_idnr;
    ccm_msg_t* msg = message_of(pcx->ccm, question, error);
    if (msg == nullptr) {
        return -1;
    }
    // A line that breaks in this moment is no failure: the next logon repeats the question.
    (void)send_outgoing(pcx->ccm, msg, to_server(pcx, server_module, module));
    __log(number_resource_asked, "%d:%s/%s|%d", resource.client, resource.object_name.c_str(),
          resource.resource_name.c_str(), resource.ah_idnr);
    return 0;
}

resource_item* find_awaited(const MSG_TYPE_BIN_DATA& data) {
    resource_list* list = &resource_context()->requested_resource_list;
    const std::string_view object = get_text(data.object_name);
    const std::string_view name = get_text(data.name);
    const int client = data.header.i2Mandant;
    resource_item* item = FindResourceInList(list, object, name, client, data.ah_idnr);
    // The job that asked first may have gone; the resource still is what the others wait for.
    return item != nullptr ? item : FindResourceInList(list, object, name, client, 0);
}

int store(EX_PCX* pcx, const resource_item& resource, std::span<const unsigned char> content, char file_type,
          qx7_error* error) {
    const resource_job* job = resource_first_job(resource);
    if (job != nullptr && resource.usage_type == RESOURCE_NEW &&
        CreateCachePath(pcx, job, resource, error) < 0) {
        return -1;
    }
    return CreateResourceFile(pcx, resource, content, file_type, error);
}

void move_key(resource_job* job, int key, bool into_used) {
    std::erase_if(job->jp_requested_resource_list, [&](const key_entry& entry) { return entry.key == key; });
    if (into_used) {
        AddItemToList(&job->jp_used_client_resource_list, {key, job->JP_jobNr, job->JP_Mandant});
    }
}

// A task resource belongs to its one job from now on.
void give_to_job(resource_list* taken, int key) {
    if (resource_job* job = resource_first_job(taken->front())) {
        move_key(job, key, false);
        job->jp_used_task_resource_list.splice(job->jp_used_task_resource_list.begin(), *taken);
    }
}

void hand_out(EX_PCX* pcx, resource_list* taken) {
    const int key = taken->front().key;
    // A copy: a job whose start fails takes itself off the lists, and the item with it.
    const std::vector<key_entry> jobs = taken->front().job_list;
    if (taken->front().cache_type == RESOURCE_TASK) {
        give_to_job(taken, key);
    } else {
        // All jobs first: one that ends its start badly must not free what the others have not taken yet.
        for (const key_entry& entry : jobs) {
            if (resource_job* job = resource_job_of(entry)) {
                move_key(job, key, true);
            }
        }
        resource_list* used = &resource_context()->used_resource_list;
        used->splice(used->begin(), *taken);
    }
    for (const key_entry& entry : jobs) {
        if (resource_job* job = resource_job_of(entry)) {
            resource_jobs().start(pcx, job);
        }
    }
}

}  // namespace

int SendBinGetMessage(EX_PCX* pcx, resource_item* resource, qx7_error* error) {
    resource->start_timestamp = time(nullptr);
    if (!ccm_server_reachable(pcx)) {
        return 0;
    }
    return send_question(pcx, *resource, version_first, reply_module, error);
}

int SendBinGetMessagesAfterReconnect(EX_PCX* pcx) {
    qx7_error error;
    for (const resource_item& resource : resource_context()->requested_resource_list) {
        if (send_question(pcx, resource, version_again, reply_module_again, &error) != 0) {
            __log_error(error);
            return -1;
        }
    }
    return 0;
}

int ProcessBinDataMessage(EX_PCX* pcx, ccm_msg_t* msg) {
    const message_view view = view_of(msg);
    if (!message_type_is(view.data, view.length, "BIN_DATA")) {
        return other_type;
    }
    const auto data = view_record<MSG_TYPE_BIN_DATA>(view);
    resource_item* item = find_awaited(data);
    if (item == nullptr) {
        __log(number_resource_unexpected, "%s/%s", printable(get_text(data.object_name)).c_str(),
              printable(get_text(data.name)).c_str());
        return 0;
    }
    const long timestamp = timestamp_seconds_local(data.timestamp);
    if (timestamp < item->timestamp) {
        __PutLogText("An older version of resource %d:%s/%s came and was dropped.", item->client,
                     item->object_name.c_str(), item->resource_name.c_str());
        return 0;
    }
    item->timestamp = timestamp;
    item->end_timestamp = time(nullptr);
    resource_list taken = GetResourceFromList(&resource_context()->requested_resource_list, item->key);
    resource_item& resource = taken.front();
    qx7_error error;
    const auto content = view_data(view, data.content_dist, data.content_len);
    // A file of half the bytes would count as current from then on.
    const bool whole = data.content_len >= 0 && content.size() == static_cast<size_t>(data.content_len);
    if (!whole) {
        qx_error_set(&error, -1, EBADMSG, number_resource_file_failed, "%d:%s/%s|%.400s|%d - %s|",
                     resource.client, resource.object_name.c_str(), resource.resource_name.c_str(),
                     resource.file_path.c_str(), EBADMSG, error_text(EBADMSG).c_str());
    }
    if (!whole || store(pcx, resource, content, data.file_type, &error) != 0) {
        __log_error(error);
        CancelAllJobsWaitingForThisResource(pcx, &resource, error.qx_msgnr, error.qx_msgInsert);
        return -1;
    }
    __log(resource.usage_type == RESOURCE_NEW ? number_resource_stored_new : number_resource_stored,
          "%d:%s/%s|%.400s", resource.client, resource.object_name.c_str(), resource.resource_name.c_str(),
          resource.file_path.c_str());
    hand_out(pcx, &taken);
    return 0;
}
