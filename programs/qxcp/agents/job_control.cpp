// One job at the server: activation, states, end, cancellation, questions.
#include <fmt/format.h>

#include <cstring>

#include "agent_messages.h"
#include "base/memory.h"
#include "job_text.h"
#include "messages/records_job.h"
#include "messages/timestamp.h"
#include "qxcp/message_text.h"
#include "security/string_cipher.h"

namespace {

std::string time_text(const MSG_TYPE_TIMESTAMP& stamp) {
    if (stamp.jjjj == 0) {
        return "";
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", stamp.jjjj, stamp.mo, stamp.tt, stamp.hh,
                       stamp.mi, stamp.ss);
}

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
    auto answer = new_message<MSG_TYPE_EXSTAJQU>(job.client, job.user_id);
    answer.ah_idnr = job.run;
    answer.status = status;
    cp_send(&server, agent, module_jobs, answer);
}

// The end is known: fetch the report, then let the agent forget the job.
void finish_job(cp_server& server, cp_job& job) {
    if (!server.options.fetch_reports || job.forgotten) {
        return;
    }
    for (auto& [id, fetch] : server.fetches) {
        if (fetch.run == job.run) {
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
            cp_emit(server, "report", fetched->agent, run,
                    fmt::format("report of job {} is in {}", run, path));
        } else {
            cp_emit(
                server, "report", fetched->agent, run,
                fmt::format("no report of job {}: {}", run, cp_message_text(answer.number, answer.insert)));
        }
        forget();
    });
}

// A job that no agent has got yet.
void withdraw(cp_server& server, cp_job& job) {
    job.state = cp_job_state::withdrawn;
    job.cancelled = true;
    job.forgotten = true;
    job.script.clear();
    qx_wipe(job.password.data(), job.password.size());
    job.password.clear();
    cp_emit(server, "cancel", job.agent, job.run,
            fmt::format("job {} was cancelled before it was sent", job.run));
    cp_job_changed(server, job);
}

}  // namespace

void cp_ask_for_active_jobs(cp_server& server, cp_agent& agent) {
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
                    cp_emit(server, "lost", asked->agent, number,
                            fmt::format("job {} is lost: {}", number,
                                        cp_message_text(answer.number, answer.insert)));
                    cp_job_changed(server, *asked);
                }
            });
        }
    }
}

void cp_take_status(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    auto status = view_record<MSG_TYPE_EXSTAJ>(view);
    cp_job* job = cp_find_job(&server, status.ah_idnr);
    if (job == nullptr) {
        cp_emit(server, "unknown", agent.link.agent, status.ah_idnr,
                fmt::format("agent {} tells of job {}, which this server does not know", agent.link.agent,
                            status.ah_idnr));
        cp_job stranger;
        stranger.run = status.ah_idnr;
        stranger.client = view_head(view).i2Mandant;
        auto forget = new_message<MSG_TYPE_JOB_DEL>(stranger.client, view_head(view).i4UsrIdNr);
        forget.ah_idnr = status.ah_idnr;
        cp_send(&server, agent, module_jobs, forget);
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
                fmt::format("job {} is {} (process {})", job->run, cp_shown_state(*job), job->process_id));
        cp_job_changed(server, *job);
        return;
    }
    ++job->end_count;
    const bool first = !cp_state_is_final(job->state) || job->state == cp_job_state::lost;
    job->return_code = status.retcode;
    job->end_time = time_text(status.endzeit);
    job->state = status.status == 'V' ? cp_job_state::vanished : cp_job_state::ended;
    if (first) {
        const std::string state = cp_shown_state(*job);
        cp_emit(server, "end", job->agent, job->run,
                state == "cancelled"
                    ? fmt::format("job {} was cancelled, by signal {}", job->run, job->return_code)
                    : fmt::format("job {} {} with return code {}", job->run, state, job->return_code));
    }
    cp_job_changed(server, *job);
    send_status_answer(server, agent, *job, status.status);
    finish_job(server, *job);
}

void cp_take_activation_answer(cp_server& server, cp_agent& agent, message_view view,
                               const frame_address& from) {
    auto found = server.pending.find(from.dst_acv);
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

    const std::string cache = variable("QX_EX_PATH_CACHE");
    const std::string script = cp_resource_lines(job, cache, shell) + job.script;
    std::string text = cp_to_crlf(script);
    const std::string messenger = variable("QX_EX_JOB_MD");
    if (job.wrap && !messenger.empty()) {
        text = cp_wrap_script(script, {messenger, agent.listener, agent.listener_port, job.run, job.client,
                                       agent.link.agent, shell});
    }
    message_builder<MSG_TYPE_EXAKTJ> record(job.client, job.user_id, 2);
    record->ah_idnr = job.run;
    put_text(record->name, job.name);
    put_text(record->jobfile, job.job_file);
    put_text(record->jobreport, job.report_file);
    put_text(record->logininfo, job.user);

    const std::string rest = shell.empty() ? "" : fmt::format("M=\x01{}\x01", shell);
    record.add(MSG_TYPE_EXAKTJ::rest, rest);
    record.add(MSG_TYPE_EXAKTJ::jcl, text);
    cp_append_resources(server, job, cache, record);
    if (server.options.check_passwords || !job.password.empty()) {
        std::string password = build_password_field(job.run, job.password);
        record.add(MSG_TYPE_EXAKTJ::password, password);
    }
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
                fmt::format("job {} refused: {}", run, cp_message_text(answer.number, answer.insert)));
        cp_job_changed(server, *asked);
    };
    server.pending[address.src_acv] = {agent.id, "EXAKTJ", run, refused};
    cp_link_send(agent.link, server.identity, address, record);
    cp_emit(server, "submit", job.agent, run,
            fmt::format("job {} '{}' sent to agent {}", run, job.name, job.agent));
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
    if (error = cp_check_resources(*server, job); !error.empty()) {
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

bool cp_send(cp_server* server, cp_agent& agent, std::string_view module, const built_message& message,
             cp_answer_handler handler, int run) {
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%.*s", static_cast<int>(module.size()),
                  module.data());
    std::snprintf(address.src_addr, sizeof address.src_addr, "%s", own_address);
    std::snprintf(address.src_name, sizeof address.src_name, "%s", own_module);
    address.src_acv = server->next_access_code++;
    if (handler) {
        server->pending[address.src_acv] = {agent.id, "", run, std::move(handler)};
    }
    return cp_link_send(agent.link, server->identity, address, message);
}

bool cp_cancel(cp_server* server, int run, cp_answer_handler handler) {
    cp_job* job = cp_find_job(server, run);
    if (job != nullptr && job->state == cp_job_state::waiting) {
        withdraw(*server, *job);
        if (handler) {
            handler({"OK", 0, "", ""});
        }
        return true;
    }
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    if (agent == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_JOB_CAN>(job->client, job->user_id);
    order.ah_idnr = run;
    return cp_send(server, *agent, module_jobs, order, [server, run, handler](const cp_answer& answer) {
        cp_job* asked = cp_find_job(server, run);
        if (asked != nullptr && answer.status == "OK" && !cp_state_is_final(asked->state)) {
            asked->state = cp_job_state::cancelled;
            asked->cancelled = true;
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
    message_builder<MSG_TYPE_JOB_INF> question(job->client, job->user_id);
    question->ah_idnr = run;
    put_text(question->processid, job->process_id);
    question->status = 'R';
    question->cnt = job->status_count;
    question.add(MSG_TYPE_JOB_INF::restart, job->restart_record);
    return cp_send(server, *agent, module_jobs, question, std::move(handler));
}

bool cp_forget(cp_server* server, int run) {
    cp_job* job = cp_find_job(server, run);
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    if (agent == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_JOB_DEL>(job->client, job->user_id);
    order.ah_idnr = run;
    job->forgotten = true;
    return cp_send(server, *agent, module_jobs, order);
}
