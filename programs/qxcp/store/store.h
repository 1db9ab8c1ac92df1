// What the server keeps in its data folder, so that it can be restarted under a living agent.
//
//   KStore.ini          transfer keys of the agents, enciphered with the company key
//   journal.jsonl       jobs with their restart records, transfers and the next numbers, a line for each
//                       change; the last line of a run counts, and the file is made compact at each start
//   reports/RUN.txt     the report of a job as it was fetched; *.part: what the console is about to print
//   reports/RUN.jsonl   the report of a transfer, a line of JSON for each of its lines
//   resources.json      the stored resources, their contents in resources/
//   agents/NAME.log     log lines that the agent sent
//   control.sock        where the console reaches the server
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "transfer.h"

enum class cp_job_state {
    waiting,    // no agent to send it to
    submitted,  // EXAKTJ sent
    activated,  // EXAKTJQU came: the process runs
    running,    // the job told of itself
    cancelled,  // a cancel was sent, the end is awaited
    ended,
    vanished,
    refused,
    lost,
    withdrawn,  // cancelled before it was sent to an agent
};

// The name that the journal keeps.
const char* cp_state_name(cp_job_state state);
bool cp_state_is_final(cp_job_state state);

// A stored resource that a job needs: kind 'C' is shared by the jobs of a client, 'T' is the job's own.
struct cp_job_resource {
    std::string object;
    std::string name;
    char kind = 'C';
};

struct cp_job {
    int run = 0;
    uint16_t client = 100;
    unsigned user_id = 1;
    std::string name;
    std::string agent;
    std::string user;
    std::string shell;
    std::string password;  // kept only until the job was sent
    std::string script;    // plain, kept only until the job was sent
    bool wrap = true;
    std::vector<cp_job_resource> resources;
    std::string job_file;     // on the agent's host
    std::string report_file;  // on the agent's host
    cp_job_state state = cp_job_state::waiting;
    int return_code = 0;
    std::string process_id;
    std::string info_text;
    std::string program;
    std::string start_time;  // UTC, "YYYY-MM-DD hh:mm:ss"
    std::string end_time;
    int cpu_ms = 0;
    int io_count = 0;
    bool cancelled = false;  // the agent took the order to cancel it, or it was withdrawn
    int status_count = 0;    // EXSTAJ received
    int end_count = 0;       // of these, with a final state
    int message_number = 0;
    std::string message_insert;
    std::string restart_record;  // opaque
    std::map<std::string, std::string> variables;
    std::vector<std::string> output_files;
    std::string report_copy;  // path of the fetched report, empty while it is not here
    bool forgotten = false;   // JOB_DEL sent
};
// The state as people see it: the end that an order to cancel brought is "cancelled", before that the job is
// "cancelling".
const char* cp_shown_state(const cp_job& job);
// All names that it gives.
const std::vector<std::string>& cp_shown_states();
// What the console tells of a job: `return_code` only where a job has one, `signal` for one that was
// cancelled,
// `message` with the text of its message.
nlohmann::json cp_job_json(const cp_job& job);

// A file that the server keeps for jobs, in the storage object of a client.
struct cp_resource {
    uint16_t client = 100;
    std::string object;
    std::string name;
    bool text = false;     // agents convert it
    int64_t modified = 0;  // seconds since 1970: the version
    int64_t size = 0;
    std::string file;  // below the folder resources
};

struct cp_store {
    std::string folder;
    FILE* journal = nullptr;
    int next_run = 1;
    int next_report_id = 1;
    std::map<int, cp_job> jobs;            // by run number
    std::map<int, cp_transfer> transfers;  // by run number; no job has the same
    std::vector<cp_resource> resources;

    cp_store() = default;
    ~cp_store();
    cp_store(const cp_store&) = delete;
    cp_store& operator=(const cp_store&) = delete;
};

// Makes the folder where it is missing and reads what it holds. Returns an empty text, or what is wrong.
std::string cp_store_open(cp_store& store, const std::string& folder);
// These return an empty text, or what is wrong. A line is in the file when they return; a crash of the host
// may still lose it.
std::string cp_store_save_job(const cp_store& store, const cp_job& job);
std::string cp_store_save_transfer(const cp_store& store, const cp_transfer& transfer);
std::string cp_store_save_numbers(const cp_store& store);
std::string cp_store_report_path(const cp_store& store, int run);
// Lines behind those that the report of a transfer has already. An empty text, or what is wrong.
std::string cp_store_add_lines(const cp_store& store, int run, const std::vector<cp_report_line>& lines);
std::vector<cp_report_line> cp_store_lines(const cp_store& store, int run);
