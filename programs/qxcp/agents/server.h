// The development server: agents log on to it, jobs run through it, a console talks to it.
//
// One thread. cp_server_step does what is due and returns; nothing else blocks. The library is what the
// command
// `qxcp serve` runs and what the tests drive in their own process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "link.h"
#include "qxcp/store/store.h"

struct cp_options {
    std::string system = "QX7";
    std::string name = "CP001";
    std::string address = "127.0.0.1";
    int port = 0;  // 0: any free one
    std::string folder;
    int ranking = 1;
    std::string cp_list;

    // What agents are told at logon, in seconds where a time.
    int job_check = 30;
    int keep_alive = 60;
    int reconnect = 60;
    int report_interval = 20;
    int block_size = 32000;
    int transfer_status = 1;   // figures of a running transfer
    int transfer_report = 5;   // lines of its report
    int transfer_restart = 1;  // points in a file from which a restart goes on
    int command_limit = 180;
    int log_megabytes = 0;  // of an agent's log file, then it begins a new one; 0: any
    bool log_to_server = true;
    bool check_passwords = false;
    bool own_company_key = false;  // make one, if the key store is new

    bool fetch_reports = true;  // after a job's end, then the agent may forget the job
    bool control = true;        // open the console's socket
};

// One line of the server's log: `kind` is a word, `text` is for people, `agent` and `run` where they apply.
struct cp_event {
    std::string time;  // UTC
    std::string kind;
    std::string agent;
    int run = 0;
    std::string text;
};

// An agent as its logon message describes it.
struct cp_agent {
    int id = 0;
    int fd = -1;
    cp_link link;
    bool logged_on = false;
    std::string address;   // of the peer
    std::string listener;  // address of its listener
    int listener_port = 0;
    std::string version;
    std::string platform;
    std::string since;
    std::string fingerprint;  // of the transfer key
    char start_type = ' ';
    int report_id = 0;
    std::map<std::string, std::string> variables;
    bool stopping = false;
};

struct cp_server;

// An answer to a request: QUITT's status, number and insert; `status` is "--" when the line was lost.
struct cp_answer {
    std::string status;
    int number = 0;
    std::string insert;
    std::string data;
};
using cp_answer_handler = std::function<void(const cp_answer&)>;
using cp_observer = std::function<void(const cp_event&)>;
// Sees each message before the server does; true takes it.
using cp_message_tap = std::function<bool(cp_agent&, const cp_received&)>;

// Now, in UTC, as events carry it.
std::string cp_time_text();

// Null with `error` filled when the folder or the port cannot be used.
std::unique_ptr<cp_server, void (*)(cp_server*)> cp_server_open(const cp_options& options,
                                                                std::string& error);
void cp_server_close(cp_server* server);

int cp_server_port(const cp_server* server);
cp_options& cp_server_options(cp_server* server);
cp_store& cp_server_store(cp_server* server);
void cp_server_observe(cp_server* server, cp_observer observer);
void cp_server_tap(cp_server* server, cp_message_tap tap);

// Waits at most `timeout_ms` for something to do and does it.
void cp_server_step(cp_server* server, int timeout_ms);
// Steps until `done` or the time is over. Returns what `done` says then.
bool cp_server_run_until(cp_server* server, int timeout_ms, const std::function<bool()>& done);

// The logged-on agent of that name; with an empty name the only one, or null.
cp_agent* cp_find_agent(cp_server* server, const std::string& name);
const std::vector<std::unique_ptr<cp_agent>>& cp_agents(const cp_server* server);

// Takes a job over (`script`, `name`, `agent`, `user`, … filled) and gives it a run number. It is sent at
// once, or when its agent logs on. 0 with `error` filled when it can't be taken.
int cp_submit(cp_server* server, cp_job job, std::string& error);
cp_job* cp_find_job(cp_server* server, int run);

// Orders and questions; the handler is called from cp_server_step. False when no agent is there for it.
bool cp_cancel(cp_server* server, int run, cp_answer_handler handler);
bool cp_job_info(cp_server* server, int run, cp_answer_handler handler);
bool cp_forget(cp_server* server, int run);
// Fetches lines of a job's report to `path`: all, those that match a pattern with * and ?, or the tail.
struct cp_report_wish {
    std::string path;
    std::string match;
    bool tail = false;
    int block_size = 0;   // 0: that of the options
    int max_records = 0;  // 0: all
    bool erase = false;
};
bool cp_fetch_report(cp_server* server, int run, const cp_report_wish& wish, cp_answer_handler handler);
// A command for the login shell of a user; an empty user is the agent's own, where anonymous commands are
// allowed.
struct cp_exec_wish {
    std::string command;
    std::string user;
    std::string password;
    int rows = 1000;
    uint16_t client = 100;
    unsigned user_id = 1;
};
// The number of the command, 0 when no agent is there. The answer's data is the output, its lines ended by CR
// LF.
int cp_exec(cp_server* server, const std::string& agent, const cp_exec_wish& wish, cp_answer_handler handler);
// Stops a command, or all with number 0; their requests get no answer.
bool cp_exec_cancel(cp_server* server, const std::string& agent, int number);
// Administration of an agent (with an empty name: of the only one). False when it is not logged on. The
// answers are QUITT, but `data` of cp_query's is a whole EXINFO and that of cp_change_log's a whole CHGLOGQU,
// in host form.
bool cp_query(cp_server* server, const std::string& agent, cp_answer_handler handler);
// TRCGET; `insert` holds the flags, `data` size, memory, trigger type and trigger text, a NUL behind each but
// the last.
bool cp_trace_get(cp_server* server, const std::string& agent, cp_answer_handler handler);
struct cp_trace_wish {
    std::string flags;     // a digit for each area, at most 16
    bool extended = true;  // version 02: what follows counts
    int max_size = 0;
    bool memory = false;
    bool dump = false;
    bool force = false;
    char trigger_type = ' ';
    std::string trigger;
};
// TRCSET; no answer comes.
bool cp_trace_set(cp_server* server, const std::string& agent, const cp_trace_wish& wish);
bool cp_change_log(cp_server* server, const std::string& agent, cp_answer_handler handler);

struct cp_mail {
    std::vector<std::string> to;
    std::vector<std::string> cc;
    std::string from;
    std::string subject;
    std::string text;
    bool html = false;
    std::vector<std::string> attachments;  // paths on the agent's host
    std::string server;                    // relay; these empty: what the agent's settings say
    std::string user;
    std::string password;
    int timeout = 0;
    bool first_version = false;  // SNDMAIL instead of SNDMAIL2
};
// False also for a mail that is too long for its message; `error` says which.
bool cp_send_mail(cp_server* server, const std::string& agent, const cp_mail& mail, std::string& error,
                  cp_answer_handler handler);
// CONNECT: the agent shall connect to another one.
bool cp_connect_agents(cp_server* server, const std::string& agent, const std::string& name,
                       const std::string& address, int port, const std::string& token,
                       cp_answer_handler handler);
// The token of such an order: it gives `agent` the right to present itself to `partner`. False with `error`.
bool cp_delegation_token(cp_server* server, const std::string& agent, const std::string& partner,
                         std::string& token, std::string& error);
// A part of a file of the agent's host, read with the rights of `user` and copied to `copy` (removed again
// when the answer isn't OK). The answer's data is "<bytes> <position in the file>".
enum class cp_file_part { bytes, head, tail };
struct cp_file_wish {
    std::string path;
    std::string copy;
    std::string user;
    std::string password;
    cp_file_part part = cp_file_part::bytes;
    int lines = 0;      // of head and tail
    int64_t limit = 0;  // bytes that are wanted at most, 0: all
    int block_size = 524288;
    int asker = 0;  // of the console: with it the read ends
};
bool cp_read_file(cp_server* server, const std::string& agent, const cp_file_wish& wish,
                  cp_answer_handler handler);
// A command of the agent's service console; its output is in `copy` when the answer is OK.
bool cp_shell(cp_server* server, const std::string& agent, const std::string& command,
              const std::string& copy, cp_answer_handler handler);
// An initial package for an agent that never logged on: its transfer key is made and stored here, so that its
// first logon needs no key exchange. With `company_only` it holds the company key alone and suits any agent.
// Empty with
// `error` filled; a key that is held is not replaced. Whoever gets the bytes wipes them.
std::string cp_make_package(cp_server* server, const std::string& agent, bool company_only,
                            std::string& error);
// Gives up the transfer key of an agent: the next first contact of that name is taken. An empty text, or what
// is wrong.
std::string cp_forget_key(cp_server* server, const std::string& agent);
bool cp_stop_agent(cp_server* server, const std::string& agent);
// Ends the connection without a word.
void cp_drop_line(cp_server* server, const std::string& agent);

// Sends any message to a module of the agent; QUITT for it goes to `handler` (may be empty). `run` is that of
// an order that may be answered otherwise.
bool cp_send(cp_server* server, cp_agent& agent, std::string_view module, const built_message& message,
             cp_answer_handler handler = {}, int run = 0);

nlohmann::json cp_agent_json(const cp_agent& agent);
