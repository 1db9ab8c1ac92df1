// What the server says to agents and makes of what they say: logon, jobs, reports.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/memory.h"
#include "job_text.h"
#include "messages/conversion.h"
#include "messages/records_connection.h"
#include "messages/records_job.h"
#include "messages/records_report.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "messages/view.h"
#include "security/string_cipher.h"
#include "server_state.h"

namespace {

constexpr char module_jobs[] = "JPAKTJ_R";
constexpr char module_agent[] = "QXEXVAR";
constexpr char module_reports[] = "QXREPEX";
constexpr char own_address[] = "*CP";
constexpr char own_module[] = "QXCPJOB";
constexpr int no_block_limit = 0x7FFFFFFF;

std::string time_text(const MSG_TYPE_TIMESTAMP& stamp) {
    if (stamp.jjjj == 0) {
        return "";
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", stamp.jjjj, stamp.mo, stamp.tt, stamp.hh, stamp.mi,
                       stamp.ss);
}

template <class Record>
Record new_message(const char* type, int client, unsigned user, int version = 1) {
    Record record{};
    CreateQxHeadm(&record.header, type, static_cast<uint16_t>(client), user);
    set_message_version(&record.header, version);
    return record;
}

// A message with variable data behind its record.
struct message_buffer {
    std::string bytes;

    explicit message_buffer(size_t fixed) : bytes(fixed, '\0') {}
    // Where `data` lands, 0 for nothing.
    int32_t append(std::string_view data) {
        if (data.empty()) {
            return 0;
        }
        const auto place = static_cast<int32_t>(bytes.size());
        bytes += data;
        return place;
    }
};

void answer_pending(cp_server& server, uint32_t code, const cp_answer& answer) {
    auto found = server.pending.find(code);
    if (found == server.pending.end()) {
        return;
    }
    cp_answer_handler handler = std::move(found->second.handler);
    server.pending.erase(found);
    if (handler) {
        handler(answer);
    }
}

// ---- logon

void send_logon_answer(cp_server& server, cp_agent& agent, const QX_HEADM& request, uint32_t code,
                       const char* module) {
    auto record = new_message<MSG_TYPE_EXSTRTQ2>("EXSTRTQ2", request.i2Mandant, request.i4UsrIdNr, 2);
    const cp_options& options = server.options;
    put_text(record.system_name, server.identity.system);
    record.version.major = 12;
    record.version.minor = 2;
    put_text(record.version.release_id, "+build.2108");
    put_text(record.version.remote_id, "");
    put_text(record.rep_type, "LOG");
    put_text(record.charset, "US-ASCII");
    record.use_event = 'N';
    record.anonymous_job = options.check_passwords ? 'N' : 'Y';
    record.anonymous_ft = 'N';
    record.anonymous_fe = 'N';
    record.log_to_db = options.log_to_server ? 'Y' : 'N';
    record.enc_comp = 'Y';
    record.ah_idnr = agent.report_id;
    record.job_check = options.job_check;
    record.keep_alive = options.keep_alive;
    record.reconnect = options.reconnect;
    record.report = options.report_interval;
    record.blksize = options.block_size;
    record.cmd_timeout = 180;
    put_text(record.component, "");
    record.check_interval = 60;
    record.ft_rst_life = 14;
    record.rb_rt_time = 14;
    record.ft_stat_timer = 10;
    record.ft_rst_timer = 10;
    record.ft_con_timeout = 600;
    record.ft_report_time = 60;
    record.ft_use_md5 = 'Y';
    record.fe_version = '2';
    put_text(record.token, "");
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module);
    address.dst_acv = code;
    cp_link_send(agent.link, server.identity, address, &record, sizeof record);
}

void read_variables(cp_agent& agent, message_view view, const MSG_TYPE_EXSTART2& logon) {
    table_cursor cursor = view_table(view, logon.vardist);
    for (int i = 0; i < logon.varanz && !cursor.failed; ++i) {
        std::string name{cursor_text(&cursor, sizeof(MSG_TYPE_VARTAB::varname) - 1)};
        std::string value{cursor_text(&cursor, sizeof(MSG_TYPE_VARTAB::varinhalt) - 1)};
        if (!cursor.failed) {
            agent.variables[name] = value;
        }
    }
}

void ask_for_active_jobs(cp_server& server, cp_agent& agent) {
    for (auto& [run, job] : server.store.jobs) {
        if (strcasecmp(job.agent.c_str(), agent.link.agent.c_str()) != 0 || job.forgotten) {
            continue;
        }
        if (job.state == cp_job_state::waiting) {
            cp_activate(server, agent, job);
        } else if (!cp_state_is_final(job.state) || job.restart_record.size() > 0) {
            const int number = run;
            cp_job_info(&server, run, [&server, number](const cp_answer& answer) {
                cp_job* asked = cp_find_job(&server, number);
                if (asked != nullptr && answer.status == "NK" && !cp_state_is_final(asked->state)) {
                    asked->state = cp_job_state::lost;
                    asked->forgotten = true;
                    asked->message_number = answer.number;
                    asked->message_insert = answer.insert;
                    cp_emit(server, "lost", asked->agent, number, fmt::format("job {} is lost", number));
                    cp_job_changed(server, *asked);
                }
            });
        }
    }
}

void take_logon(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    auto logon = view_record<MSG_TYPE_EXSTART2>(view);
    agent.version = fmt::format("{}.{}.{}{}", logon.version.major, logon.version.minor, logon.version.patch,
                                get_text(logon.version.release_id));
    agent.platform = fmt::format("{} {} {}", get_text(logon.sw), get_text(logon.sw_vers), get_text(logon.hw));
    agent.listener = get_text(logon.ipadr);
    agent.listener_port = logon.ipport;
    agent.start_type = logon.starttype;
    agent.since = cp_time_text();
    read_variables(agent, view, logon);
    agent.report_id = logon.ah_idnr != 0 ? logon.ah_idnr : server.store.next_report_id++;
    server.store.next_report_id = std::max(server.store.next_report_id, agent.report_id + 1);
    if (std::string fault = cp_store_save_numbers(server.store); !fault.empty()) {
        cp_emit(server, "store", "", 0, fault);
    }
    send_logon_answer(server, agent, view_head(view), from.src_acv, from.src_name[0] != '\0' ? from.src_name : "QXEXVAR");
    agent.logged_on = true;
    cp_emit(server, "logon", agent.link.agent, 0,
            fmt::format("agent {} logged on ({} start, version {}, {}, listener {}:{})", agent.link.agent,
                        logon.starttype == 'C' ? "cold" : "warm", agent.version, agent.platform, agent.listener,
                        agent.listener_port));
    ask_for_active_jobs(server, agent);
    for (auto& [run, job] : server.store.jobs) {
        if (job.state == cp_job_state::waiting && job.agent.empty()) {
            cp_activate(server, agent, job);
        }
    }
}

// ---- log of the agent

void take_log_block(cp_server& server, cp_agent& agent, message_view view) {
    auto block = view_record<MSG_TYPE_WRITE>(view);
    std::string text{view_text(view, block.inhalt_dist, block.inhalt_len)};
    std::erase(text, '\r');
    const std::string path = fmt::format("{}/agents/{}.log", server.store.folder, agent.link.agent);
    FILE* file = std::fopen(path.c_str(), "ab");
    const bool good = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (file == nullptr || std::fclose(file) != 0 || !good) {
        cp_emit(server, "store", agent.link.agent, 0,
                fmt::format("cannot write '{}': {}", path, std::strerror(errno)));
    }
}

void answer_log_change(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    auto request = view_record<MSG_TYPE_CHGLOGR>(view);
    auto answer = new_message<MSG_TYPE_CHGLOGQU>("CHGLOGQU", request.header.i2Mandant, request.header.i4UsrIdNr);
    agent.report_id = server.store.next_report_id++;
    cp_store_save_numbers(server.store);
    answer.ah_idnr_old = request.ah_idnr_old;
    answer.ah_idnr_new = agent.report_id;
    answer.timestamp = timestamp_now();
    put_text(answer.wp_name, server.identity.name);
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module_agent);
    address.dst_acv = from.src_acv;
    cp_link_send(agent.link, server.identity, address, &answer, sizeof answer);
    cp_emit(server, "log", agent.link.agent, 0, fmt::format("agent {} began a new log", agent.link.agent));
}

// ---- jobs

void read_end_data(cp_job& job, message_view view, const MSG_TYPE_EXSTAJ& status) {
    table_cursor values = view_table(view, status.statusv_dist);
    for (int i = 0; i < status.statusv_entries && !values.failed; ++i) {
        std::string name{cursor_text(&values, sizeof(MSG_TYPE_STATUS_VALUE::name) - 1)};
        std::string value{cursor_text(&values, sizeof(MSG_TYPE_STATUS_VALUE::value) - 1)};
        cursor_bytes(&values, 1);
        if (!values.failed) {
            job.variables[name] = value;
        }
    }
    table_cursor files = view_table(view, status.outfile_dist);
    std::vector<std::string> names;
    for (int i = 0; i < status.outfile_count && !files.failed; ++i) {
        cursor_bytes(&files, 1);
        std::string name{cursor_text(&files, sizeof(MSG_TYPE_OUTFILE::outfile) - 1)};
        if (!files.failed) {
            names.push_back(name);
        }
    }
    if (!names.empty()) {
        job.output_files = names;
    }
}

void send_status_answer(cp_server& server, cp_agent& agent, const cp_job& job, char status) {
    auto answer = new_message<MSG_TYPE_EXSTAJQU>("EXSTAJQU", job.client, job.user_id);
    answer.ah_idnr = job.run;
    answer.status = status;
    put_text(answer.filler, "");
    cp_send(&server, agent, module_jobs, &answer, sizeof answer);
}

// The end is known: fetch the report, then let the agent forget the job.
void finish_job(cp_server& server, cp_job& job) {
    if (!server.options.fetch_reports || job.forgotten) {
        return;
    }
    for (auto& [id, transfer] : server.transfers) {
        if (transfer.run == job.run) {
            return;  // on its way
        }
    }
    const int run = job.run;
    auto forget = [&server, run] {
        cp_forget(&server, run);
        if (cp_job* done = cp_find_job(&server, run)) {
            cp_job_changed(server, *done);
        }
    };
    if (!job.report_copy.empty() || job.report_file.empty()) {
        forget();
        return;
    }
    cp_report_wish wish;
    wish.path = cp_store_report_path(server.store, run);
    cp_fetch_report(&server, run, wish, [&server, run, path = wish.path, forget](const cp_answer& answer) {
        cp_job* fetched = cp_find_job(&server, run);
        if (fetched == nullptr || answer.status == "--") {
            return;  // the next logon or status takes it up again
        }
        if (answer.status == "OK") {
            fetched->report_copy = path;
            cp_emit(server, "report", fetched->agent, run, fmt::format("report of job {} is in {}", run, path));
        } else {
            cp_emit(server, "report", fetched->agent, run,
                    fmt::format("no report of job {}: U{:08} {}", run, answer.number, answer.insert));
        }
        forget();
    });
}

void take_status(cp_server& server, cp_agent& agent, message_view view) {
    auto status = view_record<MSG_TYPE_EXSTAJ>(view);
    cp_job* job = cp_find_job(&server, status.ah_idnr);
    if (job == nullptr) {
        cp_emit(server, "unknown", agent.link.agent, status.ah_idnr,
                fmt::format("agent {} tells of job {}, which this server does not know", agent.link.agent,
                            status.ah_idnr));
        cp_job stranger;
        stranger.run = status.ah_idnr;
        stranger.client = view_head(view).i2Mandant;
        auto forget = new_message<MSG_TYPE_JOB_DEL>("JOB_DEL", stranger.client, view_head(view).i4UsrIdNr);
        forget.ah_idnr = status.ah_idnr;
        cp_send(&server, agent, module_jobs, &forget, sizeof forget);
        return;
    }
    ++job->status_count;
    job->process_id = get_text(status.processid);
    job->info_text = get_text(status.infotext_alt.infotext);
    if (std::string start = time_text(status.startzeit); !start.empty()) {
        job->start_time = start;
    }
    if (std::string program{get_text(status.progname)}; !program.empty()) {
        job->program = program;
    }
    job->cpu_ms = status.cputime;
    job->io_count = status.iocount;
    if (auto record = view_text(view, status.restart_dist, status.restart_len); !record.empty()) {
        job->restart_record = record;
    }
    read_end_data(*job, view, status);
    const bool final = status.status == 'E' || status.status == 'A' || status.status == 'V';
    if (!final) {
        if (!cp_state_is_final(job->state) && job->state != cp_job_state::cancelled) {
            job->state = cp_job_state::running;
        }
        cp_emit(server, "status", job->agent, job->run,
                fmt::format("job {} is {} (process {})", job->run, cp_state_name(job->state), job->process_id));
        cp_job_changed(server, *job);
        return;
    }
    ++job->end_count;
    const bool first = !cp_state_is_final(job->state) || job->state == cp_job_state::lost;
    job->return_code = status.retcode;
    job->end_time = time_text(status.endzeit);
    job->state = status.status == 'V' ? cp_job_state::vanished : cp_job_state::ended;
    if (first) {
        cp_emit(server, "end", job->agent, job->run,
                fmt::format("job {} {} with return code {}", job->run, cp_state_name(job->state), job->return_code));
    }
    cp_job_changed(server, *job);
    send_status_answer(server, agent, *job, status.status);
    finish_job(server, *job);
}

void take_activation_answer(cp_server& server, cp_agent& agent, message_view view, uint32_t code) {
    auto found = server.pending.find(code);
    if (found == server.pending.end() || found->second.type != "EXAKTJ") {
        cp_emit(server, "unknown", agent.link.agent, 0, "an EXAKTJQU came for no activation");
        return;
    }
    cp_job* job = cp_find_job(&server, found->second.run);
    server.pending.erase(found);
    if (job == nullptr) {
        return;
    }
    auto answer = view_record<MSG_TYPE_EXAKTJQU>(view);
    job->process_id = get_text(answer.processid);
    job->start_time = time_text(answer.startzeit);
    if (auto record = view_text(view, answer.restart_dist, answer.restart_len); !record.empty()) {
        job->restart_record = record;
    }
    if (job->state == cp_job_state::submitted) {
        job->state = cp_job_state::activated;
    }
    cp_emit(server, "start", job->agent, job->run,
            fmt::format("job {} activated as process {} of agent {}", job->run, job->process_id, job->agent));
    cp_job_changed(server, *job);
}

void take_quittung(cp_server& server, cp_agent& agent, message_view view, uint32_t code) {
    auto quittung = view_record<MSG_TYPE_QUITT>(view);
    cp_answer answer;
    answer.status = get_text(quittung.quitt);
    answer.number = quittung.msgnr;
    answer.insert = get_text(quittung.msg_insert);
    answer.data = view_text(view, quittung.msg_dist, quittung.msg_len);
    if (server.pending.contains(code)) {
        answer_pending(server, code, answer);
        return;
    }
    cp_emit(server, "answer", agent.link.agent, 0,
            fmt::format("agent {} answers {}: {} U{:08} {}", agent.link.agent, get_text(quittung.msg), answer.status,
                        answer.number, answer.insert));
}

// ---- reports

void end_transfer(cp_server& server, int id, const cp_answer& answer) {
    auto found = server.transfers.find(id);
    if (found == server.transfers.end()) {
        return;
    }
    cp_transfer transfer = std::move(found->second);
    server.transfers.erase(found);
    cp_answer result = answer;
    if (transfer.wish.tail && transfer.tail_held) {
        std::fwrite(transfer.tail.data(), 1, transfer.tail.size(), transfer.file);
    }
    if (std::fclose(transfer.file) != 0 && result.status == "OK") {
        result.status = "NK";
        result.insert = fmt::format("cannot write '{}': {}", transfer.wish.path, std::strerror(errno));
    }
    if (transfer.handler) {
        transfer.handler(result);
    }
}

void take_report_block(cp_server& server, cp_agent& agent, message_view view) {
    auto block = view_record<MSG_TYPE_REP_DATA>(view);
    auto found = server.transfers.find(block.ah_idnr);
    if (found == server.transfers.end()) {
        return;
    }
    cp_transfer& transfer = found->second;
    std::string text{view_text(view, block.data_dist, block.data_len)};
    std::erase(text, '\r');
    bool good = true;
    if (transfer.wish.tail) {
        transfer.tail = std::move(text);
        transfer.tail_held = true;
    } else {
        good = std::fwrite(text.data(), 1, text.size(), transfer.file) == text.size();
    }
    auto next = new_message<MSG_TYPE_REP_QUIT>("REP_QUIT", view_head(view).i2Mandant, view_head(view).i4UsrIdNr);
    next.ah_idnr = block.ah_idnr;
    next.rep_ah_idnr = block.rep_ah_idnr;
    next.rep_rh_idnr = block.rep_rh_idnr;
    std::memcpy(next.rep_type, block.rep_type, sizeof next.rep_type);
    transfer.block = block.rep_blk + 1;
    next.rep_blk = transfer.block;
    next.msgnr = good ? 0 : 2003041;
    put_text(next.msg_insert, good ? "" : fmt::format("fwrite|{}|{}|{}|", transfer.wish.path, errno, std::strerror(errno)));
    put_text(next.filler, "");
    cp_send(&server, agent, module_reports, &next, sizeof next);
}

void take_report_end(cp_server& server, message_view view) {
    auto end = view_record<MSG_TYPE_REP_END>(view);
    cp_answer answer;
    answer.number = end.msgnr;
    answer.insert = get_text(end.msg_insert);
    constexpr int limit_reached = 29007;
    constexpr int line_limit_reached = 29008;
    constexpr int ended_well = 29001;
    const bool good = end.msgnr == 0 || end.msgnr == limit_reached || end.msgnr == line_limit_reached ||
                      end.msgnr == ended_well;
    answer.status = good ? "OK" : "NK";
    end_transfer(server, end.ah_idnr, answer);
}

void answer_query(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    auto query = view_record<MSG_TYPE_SRVQUERY>(view);
    auto answer = new_message<MSG_TYPE_SRVINFO>("SRVINFO", query.header.i2Mandant, query.header.i4UsrIdNr);
    answer.extime = query.extime;
    answer.srtime = timestamp_now();
    std::memcpy(answer.anonym, query.anonym, sizeof answer.anonym);
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module_agent);
    address.dst_acv = from.src_acv;
    cp_link_send(agent.link, server.identity, address, &answer, sizeof answer);
}

}  // namespace

void cp_handle_message(cp_server& server, cp_agent& agent) {
    cp_received& received = agent.link.received;
    msgconv_ctx_t context;
    msg_error error;
    const int result = ToHOST(received.body.data(), received.body.size(), &context, 0, nullptr, &error);
    if (result != walk_accepted) {
        const int number = result == walk_warned && error.warning_list.length > 0 ? error.warning_list.list[0].code
                                                                                 : error.code;
        const std::string insert = result == walk_warned && error.warning_list.length > 0
                                       ? error.warning_list.list[0].subst
                                       : error.subst;
        cp_emit(server, "conversion", agent.link.agent, 0,
                fmt::format("message of agent {} dropped: U{:08} {}", agent.link.agent, number, insert));
        free_warning_list(&error);
        return;
    }
    const message_view view = view_message(received.body.data(), received.body.size());
    const frame_address& from = received.address;
    const uint32_t code = from.dst_acv;
    auto is = [&](const char* type) { return message_type_is(view.data, view.length, type); };
    if (is("EXSTART2")) {
        take_logon(server, agent, view, from);
    } else if (is("EXAKTJQU")) {
        take_activation_answer(server, agent, view, code);
    } else if (is("EXSTAJ")) {
        take_status(server, agent, view);
    } else if (is("QUITT")) {
        take_quittung(server, agent, view, code);
    } else if (is("REP_DATA")) {
        take_report_block(server, agent, view);
    } else if (is("REP_END")) {
        take_report_end(server, view);
    } else if (is("SRVQUERY")) {
        answer_query(server, agent, view, from);
    } else if (is("WRITE")) {
        take_log_block(server, agent, view);
    } else if (is("CHGLOGR")) {
        answer_log_change(server, agent, view, from);
    } else if (is("EXSTOP")) {
        agent.stopping = true;
        cp_emit(server, "stop", agent.link.agent, 0, fmt::format("agent {} stops", agent.link.agent));
    } else if (view.length == 0) {
        answer_pending(server, code, {"NK", 7, "", ""});
    } else {
        cp_emit(server, "unknown", agent.link.agent, 0,
                fmt::format("agent {} sent '{}', which this server does not handle", agent.link.agent,
                            get_text(reinterpret_cast<const char*>(view.data), std::min<size_t>(view.length, 8))));
    }
}

void cp_handle_lost_line(cp_server& server, cp_agent& agent) {
    const cp_answer lost{"--", 0, "the connection was lost", ""};
    std::vector<uint32_t> codes;
    for (auto& [code, pending] : server.pending) {
        if (pending.agent_id == agent.id) {
            codes.push_back(code);
        }
    }
    for (uint32_t code : codes) {
        answer_pending(server, code, lost);
    }
    std::vector<int> ids;
    for (auto& [id, transfer] : server.transfers) {
        if (transfer.agent_id == agent.id) {
            ids.push_back(id);
        }
    }
    for (int id : ids) {
        end_transfer(server, id, lost);
    }
}

void cp_job_changed(cp_server& server, cp_job& job) {
    if (std::string fault = cp_store_save_job(server.store, job); !fault.empty()) {
        cp_emit(server, "store", job.agent, job.run, fault);
    }
    cp_control_tell_job(server, job);
}

void cp_activate(cp_server& server, cp_agent& agent, cp_job& job) {
    auto variable = [&agent](const char* name) {
        auto found = agent.variables.find(name);
        return found == agent.variables.end() ? std::string{} : found->second;
    };
    job.agent = agent.link.agent;
    job.job_file = fmt::format("{}J{:03}{:07}.TXT", variable("QX_EX_PATH_TEMP"), job.client, job.run);
    job.report_file = fmt::format("{}O{:03}{:07}.TXT", variable("QX_EX_PATH_JOBREPORT"), job.client, job.run);
    const std::string shell = job.shell.empty() ? cp_shell_of_script(job.script) : job.shell;

    std::string text = cp_to_crlf(job.script);
    const std::string messenger = variable("QX_EX_JOB_MD");
    if (job.wrap && !messenger.empty()) {
        text = cp_wrap_script(job.script, {messenger, agent.listener, agent.listener_port, job.run, job.client,
                                           agent.link.agent, shell});
    }
    auto record = new_message<MSG_TYPE_EXAKTJ>("EXAKTJ", job.client, job.user_id, 2);
    record.ah_idnr = job.run;
    put_text(record.name, job.name);
    put_text(record.jobfile, job.job_file);
    put_text(record.jobreport, job.report_file);
    put_text(record.jobsyslst, "");
    put_text(record.eventfile, "");
    put_text(record.logininfo, job.user);
    put_text(record.jclass, "");
    put_text(record.prio, "");
    record.revision = ' ';
    put_text(record.loggtyp, "");
    put_text(record.component, "");
    record.filler = record.filler2 = record.filler3 = record.filler4 = record.filler5 = ' ';

    message_buffer buffer(sizeof record);
    const std::string rest = shell.empty() ? "" : fmt::format("M=\x01{}\x01", shell);
    record.rest_dist = buffer.append(rest);
    record.rest_len = static_cast<int32_t>(rest.size());
    record.jcl_dist = buffer.append(text);
    record.jcl_len = static_cast<int32_t>(text.size());
    if (server.options.check_passwords || !job.password.empty()) {
        std::string password = build_password_field(job.run, job.password);
        record.pwd_dist = buffer.append(password);
        record.pwd_len = static_cast<int32_t>(password.size());
    }
    std::memcpy(buffer.bytes.data(), &record, sizeof record);
    qx_wipe(job.password.data(), job.password.size());
    job.password.clear();

    job.state = cp_job_state::submitted;
    const int run = job.run;
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module_jobs);
    std::snprintf(address.src_addr, sizeof address.src_addr, "%s", own_address);
    std::snprintf(address.src_name, sizeof address.src_name, "%s", own_module);
    address.src_acv = server.next_access_code++;
    auto refused = [&server, run](const cp_answer& answer) {
        cp_job* asked = cp_find_job(&server, run);
        if (asked == nullptr || answer.status == "--") {
            return;  // the next logon asks
        }
        asked->state = cp_job_state::refused;
        asked->message_number = answer.number;
        asked->message_insert = answer.insert;
        asked->forgotten = true;
        cp_emit(server, "refused", asked->agent, run,
                fmt::format("job {} refused: U{:08} {}", run, answer.number, answer.insert));
        cp_job_changed(server, *asked);
    };
    server.pending[address.src_acv] = {agent.id, "EXAKTJ", run, refused};
    cp_link_send(agent.link, server.identity, address, buffer.bytes.data(), buffer.bytes.size());
    cp_emit(server, "submit", job.agent, run, fmt::format("job {} '{}' sent to agent {}", run, job.name, job.agent));
    cp_job_changed(server, job);
}

int cp_submit(cp_server* server, cp_job job, std::string& error) {
    if (job.name.size() > 200 || job.user.size() > 200) {
        error = "the names of job and user have at most 200 characters";
        return 0;
    }
    if (job.script.size() > (size_t{64} << 20)) {
        error = "the script is larger than 64 MiB";
        return 0;
    }
    job.run = server->store.next_run++;
    if (error = cp_store_save_numbers(server->store); !error.empty()) {
        return 0;
    }
    job.state = cp_job_state::waiting;
    const int run = job.run;
    const std::string agent_name = job.agent;
    cp_job& kept = server->store.jobs[run] = std::move(job);
    if (cp_agent* agent = cp_find_agent(server, agent_name)) {
        cp_activate(*server, *agent, kept);
    } else {
        cp_job_changed(*server, kept);
    }
    return run;
}

cp_job* cp_find_job(cp_server* server, int run) {
    auto found = server->store.jobs.find(run);
    return found == server->store.jobs.end() ? nullptr : &found->second;
}

bool cp_send(cp_server* server, cp_agent& agent, std::string_view module, const void* message, size_t length,
             cp_answer_handler handler) {
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%.*s", static_cast<int>(module.size()), module.data());
    std::snprintf(address.src_addr, sizeof address.src_addr, "%s", own_address);
    std::snprintf(address.src_name, sizeof address.src_name, "%s", own_module);
    address.src_acv = server->next_access_code++;
    if (handler) {
        server->pending[address.src_acv] = {agent.id, "", 0, std::move(handler)};
    }
    return cp_link_send(agent.link, server->identity, address, message, length);
}

bool cp_cancel(cp_server* server, int run, cp_answer_handler handler) {
    cp_job* job = cp_find_job(server, run);
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    if (agent == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_JOB_CAN>("JOB_CAN", job->client, job->user_id);
    order.ah_idnr = run;
    return cp_send(server, *agent, module_jobs, &order, sizeof order, [server, run, handler](const cp_answer& answer) {
        cp_job* asked = cp_find_job(server, run);
        if (asked != nullptr && answer.status == "OK" && !cp_state_is_final(asked->state)) {
            asked->state = cp_job_state::cancelled;
            cp_emit(*server, "cancel", asked->agent, run, fmt::format("job {} is being cancelled", run));
            cp_job_changed(*server, *asked);
        }
        if (handler) {
            handler(answer);
        }
    });
}

bool cp_job_info(cp_server* server, int run, cp_answer_handler handler) {
    cp_job* job = cp_find_job(server, run);
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    if (agent == nullptr) {
        return false;
    }
    auto question = new_message<MSG_TYPE_JOB_INF>("JOB_INF", job->client, job->user_id);
    question.ah_idnr = run;
    put_text(question.processid, job->process_id);
    question.status = 'R';
    question.last_jobinf = ' ';
    question.cnt = job->status_count;
    message_buffer buffer(sizeof question);
    question.restart_dist = buffer.append(job->restart_record);
    question.restart_len = static_cast<int32_t>(job->restart_record.size());
    std::memcpy(buffer.bytes.data(), &question, sizeof question);
    return cp_send(server, *agent, module_jobs, buffer.bytes.data(), buffer.bytes.size(), std::move(handler));
}

bool cp_forget(cp_server* server, int run) {
    cp_job* job = cp_find_job(server, run);
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    if (agent == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_JOB_DEL>("JOB_DEL", job->client, job->user_id);
    order.ah_idnr = run;
    job->forgotten = true;
    return cp_send(server, *agent, module_jobs, &order, sizeof order);
}

bool cp_fetch_report(cp_server* server, int run, const cp_report_wish& wish, cp_answer_handler handler) {
    cp_job* job = cp_find_job(server, run);
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    FILE* file = agent == nullptr ? nullptr : std::fopen(wish.path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_REP_GET>("REP_GET", job->client, job->user_id);
    order.ah_idnr = server->next_transfer++;
    put_text(order.filename, job->report_file);
    order.rep_ah_idnr = run;
    put_text(order.rep_type, "REP");
    order.blksize = wish.block_size != 0 ? wish.block_size : server->options.block_size;
    put_text(order.logininfo, "");
    order.erase = wish.erase ? '1' : '0';
    order.maxrecords = wish.max_records;
    order.maxblk = wish.tail ? 1 : no_block_limit;
    put_text(order.filler, "");
    message_buffer buffer(sizeof order);
    order.match_dist = buffer.append(wish.match);
    order.match_len = static_cast<int32_t>(wish.match.size());
    std::memcpy(buffer.bytes.data(), &order, sizeof order);
    server->transfers[order.ah_idnr] = {agent->id, run, file, wish, 0, false, {}, std::move(handler)};
    return cp_send(server, *agent, module_reports, buffer.bytes.data(), buffer.bytes.size());
}

bool cp_stop_agent(cp_server* server, const std::string& name) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    struct __attribute__((packed)) {
        char host[32];
        char mode;
        char unused[3];
        int32_t number;
        char insert[256];
    } order{};
    static_assert(sizeof order == 296);
    put_text(order.host, agent->link.agent);
    order.mode = ' ';
    put_text(order.insert, "");
    return cp_link_send_item(agent->link, server->identity, key_system_shutdown, &order, sizeof order);
}
