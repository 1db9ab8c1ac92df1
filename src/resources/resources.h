// Stored resources: files that jobs need and the server keeps. A client resource is shared by all jobs of a
// client and stays on disk; a task resource belongs to one job and goes with it.
//
// A resource is requested (BIN_GET is out), used (on disk, jobs run or start with it) or waiting (a new
// version whose old one is in use). Jobs name client resources by key; their own task resources they hold
// themselves, once these have come. Main thread, as all here.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "messages/head.h"
#include "messages/view.h"

struct EX_PCX;
struct MSG_TYPE_BINTAB;
struct MSG_TYPE_EXAKTJ;
struct ccm_msg_t;
struct qx7_error;

// In a resource's `job_list` it names a job; in a job's list it names a resource by `key`.
struct key_entry {
    int key = 0;
    int ah_idnr = 0;
    int client = 0;
};

enum resource_cache_type : char { RESOURCE_CLIENT = 'C', RESOURCE_TASK = 'T' };
enum resource_usage_type : char { RESOURCE_EXISTED = 'E', RESOURCE_NEW = 'C', RESOURCE_UPDATE = 'U' };
enum resource_file_type : char { RESOURCE_TEXT = 'T' };  // all others are binary

// A stored resource.
struct resource_item {
    std::vector<key_entry> job_list;  // jobs that need it
    std::string object_name;
    std::string resource_name;
    std::string file_path;  // on this host
    int ah_idnr = 0;        // the job on whose behalf it is asked for: the first of job_list
    int client = 0;
    int usr_idnr = 0;
    int key = 0;           // unique in the agent
    int resource_key = 0;  // used version and waiting new version point at each other; 0: no partner
    long timestamp = 0;    // modification time that is wanted
    long start_timestamp = 0;
    long end_timestamp = 0;
    char cache_type = RESOURCE_CLIENT;
    char usage_type = RESOURCE_EXISTED;
};

using resource_list = std::list<resource_item>;

// The part of a job's entry that resources stand on; the whole of it is in jobs/job_area.h. Texts of fixed
// width end in a zero byte.
struct resource_job {
    uint16_t JP_Mandant = 0;  // client; key together with JP_jobNr, never changed after creation
    int JP_jobNr = 0;         // run number
    char JP_oName[256] = {};
    uid_t jp_uid = static_cast<uid_t>(-1);  // the job's user; all ones while unknown
    char jp_userName[33] = {};
    unsigned char cCodeTab[256] = {};
    QX_HEADM jp_headm = {};  // header of the EXAKTJ or JOB_INF
    std::list<resource_item> jp_used_task_resource_list;
    std::vector<key_entry> jp_used_client_resource_list;
    std::vector<key_entry> jp_requested_resource_list;
    std::string jp_client_cache_path;
    std::string jp_task_cache_path;
};

// What the owner of the jobs does here.
struct resource_owner {
    resource_job* (*find)(int ah_idnr, uint16_t client);  // null when there is none
    void (*start)(EX_PCX* pcx,
                  resource_job* job);  // nothing is missing any more; the job may be gone afterwards
    void (*refuse)(EX_PCX* pcx, resource_job* job, int msgnr, const char* insert);  // tells the server
    void (*erase)(resource_job* job);
};
// Constant afterwards.
void resources_belong_to(const resource_owner& owner);

// All resources of the agent that stand in no job's own list.
struct resource_state {
    resource_list used_resource_list;
    resource_list requested_resource_list;
    resource_list waiting_resource_list;
    int res_key = 1;
};
resource_state* resource_context();

// ---- For activation and the end of jobs

// Takes over the cache paths of an activation and all rows of its table. When the job's list of requested
// resources is not empty afterwards, it has to wait. The job's user, client and number are set, its address
// is kept. 0, or -1 with `error`; the caller then takes the job off the lists.
int job_read_resources(EX_PCX* pcx, resource_job* job, message_view view, const MSG_TYPE_EXAKTJ& record,
                       qx7_error* error);
// One row of BINTAB for `job`. 0; on -1 `error` is filled and the job's share is undone.
int ReadStorageObjectResource(EX_PCX* pcx, resource_job* job, const MSG_TYPE_BINTAB& row, qx7_error* error);
// Deletes the files of the job's own resources and their directory as the job's user. A directory that holds
// other files stays. 0, or -1 with the first failure in `error`, later ones logged.
int DeleteTaskResourceFiles(resource_job* job, qx7_error* error);
// Takes the job off every list, deletes what DeleteTaskResourceFiles does, and asks for new versions that
// waited for this job; other jobs may be cancelled and erased by that. 0, or -1 with the first failure in
// `error`.
int RemoveJobFromResourceLists(EX_PCX* pcx, resource_job* job, qx7_error* error);

// ---- Messages

// BIN_GET for an item of the requested list. Without a server connection nothing is sent: all requested items
// are asked for after the next logon. 0, or -1 with `error`.
int SendBinGetMessage(EX_PCX* pcx, resource_item* resource, qx7_error* error);
// After a logon: asks again for all that is requested. 0, or -1 at the first failure, which is logged.
int SendBinGetMessagesAfterReconnect(EX_PCX* pcx);
// BIN_DATA: writes the resource and starts the jobs that wait for nothing else. 0, -1 for a resource that
// could not be written (the jobs that waited for it were cancelled), 2 for a message of another type.
int ProcessBinDataMessage(EX_PCX* pcx, ccm_msg_t* msg);
// The jobs that need `resource`, which stands in no list any more, are told number and insert, and erased.
void CancelAllJobsWaitingForThisResource(EX_PCX* pcx, resource_item* resource, int msgnr, const char* insert);

// ---- Lists

// Names the job or resource once, however often it is added.
void AddItemToList(std::vector<key_entry>* list, const key_entry& entry);
// By job number and client. True when it was there.
bool RemoveEntryFromList(std::vector<key_entry>* list, int ah_idnr, int client);
// A client of 0 matches any. An `ah_idnr` of 0 finds a client resource, any other must be the item's own.
resource_item* FindResourceInList(resource_list* list, std::string_view object, std::string_view resource,
                                  int client, int ah_idnr);
resource_item* FindResourceWithKey(resource_list* list, int key);
// Takes the item out of `list` and gives it in a list of its own; empty when there is none.
resource_list GetResourceFromList(resource_list* list, int key);
void RemoveResourceFromList(resource_list* list, int key);
