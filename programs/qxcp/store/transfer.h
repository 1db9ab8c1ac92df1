// A transfer of files between two agents, as the server keeps it.
#pragma once

#include <cstdint>
#include <ctime>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

enum class cp_transfer_state {
    ordered,    // sent to the agent that connects
    running,    // the source's agent has made its list of files
    finished,   // every file is over
    failed,     // ended, and a file or the whole is not over
    cancelled,  // by order
    refused,    // never began
    lost,       // no agent knows it
};
// The name that the journal keeps.
const char* cp_transfer_state_name(cp_transfer_state state);
bool cp_transfer_is_over(cp_transfer_state state);

// One end of a transfer.
struct cp_transfer_place {
    std::string agent;
    std::string path;        // any bytes
    std::string user;        // empty: the agent's own
    std::string password;    // kept only until the order was sent
    std::string attributes;  // "key=value,…" for this agent alone
};

// What the source's agent told last.
struct cp_transfer_figures {
    int files_total = 0;
    int files_sent = 0;
    int files_successful = 0;
    int dirs_total = 0;
    int dirs_sent = 0;
    int dirs_successful = 0;
    int64_t file_size = 0;  // bytes
    int64_t sent_size = 0;
    int64_t compressed_size = 0;
    int64_t datastream_size = 0;
    int64_t records = 0;
    int count = 0;
};

struct cp_transfer {
    // The order.
    int run = 0;
    int origin = 0;  // the first run of a transfer that goes on, 0: this is the first
    uint16_t client = 100;
    unsigned user_id = 1;
    cp_transfer_place source;
    cp_transfer_place destination;
    bool text = false;
    bool wildcard = false;
    bool subfolders = false;
    bool erase = false;
    bool abort_on_error = false;
    bool reverse = false;  // the destination's agent connects
    bool legacy = false;   // the older protocol
    char compress = '0';   // '1', 'S' strong
    char overwrite = 'N';  // 'Y', 'A' append
    std::string coding;    // of text: "UTF-8", "UCS-2BE", "UCS-2LE", empty: the agents' code tables
    int window_min = 25;   // blocks that are not confirmed yet
    int window_max = 32;
    int window_num = 8;

    // What became of it.
    cp_transfer_state state = cp_transfer_state::ordered;
    cp_transfer_figures figures;
    std::string start_time;  // UTC
    std::string end_time;
    int message_number = 0;
    std::string message_insert;
    bool cancel_ordered = false;
    int last_line = 0;  // number of the last line of the report that is here
    bool report_complete = false;
    bool forgotten = false;     // its agent was told to forget it
    time_t forgotten_at = 0;    // monotonic; not kept
    int unknown_to = 0;         // 1 the source's agent, 2 the destination's; not kept
    bool resume_known = false;  // older protocol: the destination's agent keeps what a restart needs
    std::string restart_data;   // of the older protocol, opaque
};

// With what only the server needs, and back. The passwords stay out.
nlohmann::json cp_transfer_to_journal(const cp_transfer& transfer);
cp_transfer cp_transfer_from_journal(const nlohmann::json& line);
// What the console tells; a path that is no UTF-8 has replacement characters.
nlohmann::json cp_transfer_json(const cp_transfer& transfer);

// ---- The report

struct cp_report_line {
    int id = 0;
    std::string time;  // UTC
    int number = 0;    // of the message
    std::string insert;
};
// As an agent sends it.
struct cp_report_block {
    char status = 'C';  // 'E' the last one
    int last_id = 0;
    std::vector<cp_report_line> lines;  // without their ids, which end with `last_id`
};

// Numbers the lines of a block and gives back those that the server has not got yet; moves last_line and
// report_complete.
std::vector<cp_report_line> cp_transfer_take_block(cp_transfer& transfer, cp_report_block block);
// A text of the line for people.
std::string cp_report_line_text(const cp_report_line& line);
