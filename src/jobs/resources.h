// Contract of the resource cache. This build keeps no resources: the lists stay empty, no job ever waits for
// one, and an activation that asks for some is refused.
#pragma once

#include <string>
#include <vector>

struct EX_PCX;
struct JP_AREA;
struct qx7_error;

// In a resource's `job_list` it names a job; in a job's list it names a resource by `key`.
struct key_entry {
    int key = 0;
    int ah_idnr = 0;
    int client = 0;
};

enum resource_cache_type : char { resource_client = 'C', resource_task = 'T' };
enum resource_usage_type : char { resource_existed = 'E', resource_new = 'C', resource_update = 'U' };

// A stored resource.
struct resource_item {
    std::vector<key_entry> job_list;
    std::string object_name;
    std::string resource_name;
    std::string file_path;
    int ah_idnr = 0;
    int client = 0;
    int usr_idnr = 0;
    int key = 0;
    int resource_key = 0;
    long timestamp = 0;
    long start_timestamp = 0;
    long end_timestamp = 0;
    char cache_type = resource_client;
    char usage_type = resource_existed;
};

// One row of BINTAB for `job`. Fails with 2000244 and a text that says that this agent keeps no resources.
// 0, or -1 with `error`. Main thread, as all here.
int ReadStorageObjectResource(EX_PCX* pcx, JP_AREA* job, const char* object_name, const char* resource_name,
                              qx7_error* error);
// Deletes the files of the task's own resources as the job's user. 0, or -1 with the first failure in
// `error`.
int DeleteTaskResourceFiles(JP_AREA* job, qx7_error* error);
// Takes the job off every list. 0, or -1 with the first failure in `error`.
int RemoveJobFromResourceLists(EX_PCX* pcx, JP_AREA* job, qx7_error* error);
