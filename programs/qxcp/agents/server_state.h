// The server's record, shared by the files that make it up. Callers use server.h.
#pragma once

#include <cstdio>
#include <ctime>
#include <map>
#include <string>

#include "server.h"

// A request that waits for its answer; the number travels as access code.
struct cp_pending {
    int agent_id = 0;
    std::string type;
    int run = 0;
    cp_answer_handler handler;
};

struct cp_fetch {
    int agent_id = 0;
    int run = 0;
    FILE* file = nullptr;
    cp_report_wish wish;
    int block = 0;
    int64_t bytes = 0;
    time_t last_told = 0;  // of `bytes` to the console, monotonic
    bool tail_held = false;
    std::string tail;  // the block received last, when only the end is wanted
    cp_answer_handler handler;
};

// A file that is being read from an agent, by the key of its request.
struct cp_file_read {
    int agent_id = 0;
    int asker = 0;         // the console client that waits for it, 0: none, it is read to its end
    unsigned user_id = 0;  // as which the agent asks for the login object
    FILE* file = nullptr;
    cp_file_wish wish;
    int64_t remaining = -1;  // what the last block said, -1 before the first
    int64_t written = 0;
    int64_t position = 0;
    cp_answer_handler handler;
};

// Names that come from an agent, by the number of the request.
struct cp_listing {
    int agent_id = 0;
    std::string names;  // a line each
    cp_answer_handler handler;
};

struct cp_control_client {
    int id = 0;
    int fd = -1;
    std::string in;
    std::string out;
    int watched_run = 0;     // a `run` whose states are told
    int watched_report = 0;  // the same for a report on its way
    int watched_transfer = 0;
    std::string last_told;
    std::string watched_log;  // name of an agent whose log lines are told
    int silence_limit = 0;    // seconds in which an agent must have sent something for this client, 0: none
    time_t last_sign = 0;     // when it did, monotonic
    bool close_when_written = false;
};

struct cp_server {
    cp_options options;
    cp_identity identity;
    cp_store store;
    key_manager keys;
    int listen_fd = -1;
    int control_fd = -1;
    int port = 0;
    int next_id = 1;
    uint32_t next_access_code = 1;
    int next_request = 1;
    std::vector<std::unique_ptr<cp_agent>> agents;
    std::vector<std::unique_ptr<cp_control_client>> clients;
    std::map<uint32_t, cp_pending> pending;
    std::map<int, cp_fetch> fetches;
    std::map<std::string, cp_file_read> file_reads;
    std::map<int, cp_listing> listings;
    cp_observer observer;
    cp_message_tap tap;

    ~cp_server();
};

void cp_emit(cp_server& server, const std::string& kind, const std::string& agent, int run,
             const std::string& text);

// agent_messages.cpp and job_control.cpp
void cp_handle_message(cp_server& server, cp_agent& agent);
void cp_handle_lost_line(cp_server& server, cp_agent& agent);
std::string cp_log_path(const cp_server& server, std::string_view agent);  // of the lines that it has sent
void cp_job_changed(cp_server& server, cp_job& job);  // stores the job and tells those who watch it
void cp_activate(cp_server& server, cp_agent& agent, cp_job& job);

// keys.cpp
// Makes a company key for a key store that is new; one that it has stays. An empty text, or what is wrong.
std::string cp_make_company_key(cp_server& server);

// control.cpp
bool cp_control_open(cp_server& server, std::string& error);
void cp_control_accept(cp_server& server);
void cp_control_read(cp_server& server, cp_control_client& client);
void cp_control_tell_job(cp_server& server, const cp_job& job);
// How much of a job's report has come.
void cp_control_tell_progress(cp_server& server, int run, int64_t bytes);
// State and figures of a transfer to those who watch it; its end with its report.
void cp_control_tell_transfer(cp_server& server, const cp_transfer& transfer);
void cp_control_tell_log(cp_server& server, const std::string& agent, const std::string& lines);
// Refuses the requests whose agents have been silent for too long.
void cp_control_end_silent(cp_server& server);

// file_control.cpp
// Ends the reads that nobody waits for any more.
void cp_end_unwanted_reads(cp_server& server);
