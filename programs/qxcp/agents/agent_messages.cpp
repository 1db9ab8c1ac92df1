// What agents say that is not about one job: logon, log, answers; and where each message goes.
#include "agent_messages.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/version.h"
#include "messages/conversion.h"
#include "messages/records_connection.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "qxcp/control/control.h"
#include "qxcp/message_text.h"

namespace {

// ---- logon

void send_logon_answer(cp_server& server, cp_agent& agent, const QX_HEADM& request, uint32_t code,
                       const char* module) {
    auto record = new_message<MSG_TYPE_EXSTRTQ2>(request.i2Mandant, request.i4UsrIdNr, 2);
    const cp_options& options = server.options;
    put_text(record.system_name, server.identity.system);
    record.version.major = qx_major;
    record.version.minor = qx_minor;
    put_text(record.version.release_id, qx_build);
    put_text(record.rep_type, "LOG");
    put_text(record.charset, "US-ASCII");
    record.use_event = 'N';
    record.anonymous_job = options.check_passwords ? 'N' : 'Y';
    record.anonymous_ft = options.check_passwords ? 'N' : 'Y';
    record.anonymous_fe = 'N';
    record.log_to_db = options.log_to_server ? 'Y' : 'N';
    record.enc_comp = 'Y';
    record.ah_idnr = agent.report_id;
    record.job_check = options.job_check;
    record.keep_alive = options.keep_alive;
    record.reconnect = options.reconnect;
    record.report = options.report_interval;
    record.blksize = options.block_size;
    record.cmd_timeout = options.command_limit;
    record.chglog_size = static_cast<decltype(record.chglog_size)>(options.log_megabytes);
    record.check_interval = 60;
    record.ft_rst_life = 14;
    record.rb_rt_time = 14;
    record.ft_stat_timer = static_cast<int16_t>(options.transfer_status);
    record.ft_rst_timer = static_cast<int16_t>(options.transfer_restart);
    record.ft_con_timeout = 600;
    record.ft_report_time = static_cast<int16_t>(options.transfer_report);
    record.ft_use_md5 = 'Y';
    record.fe_version = '2';
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module);
    address.dst_acv = code;
    cp_link_send(agent.link, server.identity, address, record);
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
    send_logon_answer(server, agent, view_head(view), from.src_acv,
                      from.src_name[0] != '\0' ? from.src_name : "QXEXVAR");
    agent.logged_on = true;
    cp_emit(server, "logon", agent.link.agent, 0,
            fmt::format("agent {} logged on ({} start, version {}, {}, listener {}:{})", agent.link.agent,
                        logon.starttype == 'C' ? "cold" : "warm", agent.version, agent.platform,
                        agent.listener, agent.listener_port));
    cp_ask_for_active_jobs(server, agent);
    if (logon.starttype == 'C') {
        cp_lose_legacy_transfers(server, agent);
    }
    cp_ask_for_transfers(server, agent);
    for (auto& [run, job] : server.store.jobs) {
        if (job.state == cp_job_state::waiting && job.agent.empty()) {
            cp_activate(server, agent, job);
        }
    }
}

// ---- log of the agent

void take_log_block(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    auto block = view_record<MSG_TYPE_WRITE>(view);
    std::string text{view_text(view, block.inhalt_dist, block.inhalt_len)};
    std::erase(text, '\r');
    const std::string path = cp_log_path(server, agent.link.agent);
    FILE* file = std::fopen(path.c_str(), "ab");
    const bool good = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (file == nullptr || std::fclose(file) != 0 || !good) {
        cp_emit(server, "store", agent.link.agent, 0,
                fmt::format("cannot write '{}': {}", path, std::strerror(errno)));
    }
    cp_control_tell_log(server, agent.link.agent, text);
}

// An answer that isn't QUITT goes as a whole to whoever asked.
void take_other_answer(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    cp_answer answer;
    answer.status = "OK";
    answer.data.assign(reinterpret_cast<const char*>(view.data), view.length);
    if (message_type_is(view.data, view.length, "CHGLOGQU")) {
        agent.report_id = view_record<MSG_TYPE_CHGLOGQU>(view).ah_idnr_new;
    }
    cp_answer_pending(server, from.dst_acv, answer);
}

void answer_log_change(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    auto request = view_record<MSG_TYPE_CHGLOGR>(view);
    auto answer = new_message<MSG_TYPE_CHGLOGQU>(request.header.i2Mandant, request.header.i4UsrIdNr);
    agent.report_id = server.store.next_report_id++;
    cp_store_save_numbers(server.store);
    answer.ah_idnr_old = request.ah_idnr_old;
    answer.ah_idnr_new = agent.report_id;
    answer.timestamp = timestamp_now();
    put_text(answer.wp_name, server.identity.name);
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module_agent);
    address.dst_acv = from.src_acv;
    cp_link_send(agent.link, server.identity, address, answer);
    cp_emit(server, "log", agent.link.agent, 0, fmt::format("agent {} began a new log", agent.link.agent));
}

void take_quittung(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    const uint32_t code = from.dst_acv;
    auto quittung = view_record<MSG_TYPE_QUITT>(view);
    cp_answer answer;
    answer.status = get_text(quittung.quitt);
    answer.number = quittung.msgnr;
    answer.insert = get_text(quittung.msg_insert);
    answer.data = view_text(view, quittung.msg_dist, quittung.msg_len);
    if (server.pending.contains(code)) {
        cp_answer_pending(server, code, answer);
        return;
    }
    cp_emit(server, "answer", agent.link.agent, 0,
            fmt::format("agent {} answers {} with {}: {}", agent.link.agent, get_text(quittung.msg),
                        answer.status, control_answer_text(answer)));
}

void answer_query(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    auto query = view_record<MSG_TYPE_SRVQUERY>(view);
    auto answer = new_message<MSG_TYPE_SRVINFO>(query.header.i2Mandant, query.header.i4UsrIdNr);
    answer.extime = query.extime;
    answer.srtime = timestamp_now();
    std::memcpy(answer.anonym, query.anonym, sizeof answer.anonym);
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module_agent);
    address.dst_acv = from.src_acv;
    cp_link_send(agent.link, server.identity, address, answer);
}

void take_stop(cp_server& server, cp_agent& agent, message_view, const frame_address&) {
    agent.stopping = true;
    cp_emit(server, "stop", agent.link.agent, 0, fmt::format("agent {} stops", agent.link.agent));
}

struct message_row {
    const char* type;
    cp_message_handler* take;
};

constexpr message_row message_rows[] = {
    {"EXSTART2", take_logon},
    {"EXAKTJQU", cp_take_activation_answer},
    {"EXSTAJ", cp_take_status},
    {"QUITT", take_quittung},
    {"EXRESCMD", cp_take_command_result},
    {"BIN_GET", cp_take_resource_request},
    {"RES_GET", cp_take_login_request},
    {"REP_DATA", cp_take_report_block},
    {"REP_END", cp_take_report_end},
    {"FTXSENDQ", cp_take_transfer_start},
    {"FTXSTA", cp_take_transfer_status},
    {"FTXWRITE", cp_take_transfer_report},
    {"FT_STA", cp_take_legacy_status},
    {"FT_QUIT", cp_take_legacy_end},
    {"FT_FILE", cp_take_names},
    {"SRVQUERY", answer_query},
    {"WRITE", take_log_block},
    {"CHGLOGR", answer_log_change},
    {"EXINFO", take_other_answer},
    {"CHGLOGQU", take_other_answer},
    {"EXSTOP", take_stop},
};

// Whether the agent's message has been walked into host form; one that could not is dropped with an event.
bool walked_to_host(cp_server& server, const cp_agent& agent, std::vector<unsigned char>& body) {
    msgconv_ctx_t context;
    msg_error error;
    const int result = ToHOST(body.data(), body.size(), &context, 0, nullptr, &error);
    if (result != walk_accepted) {
        const int number = result == walk_warned && error.warning_list.length > 0
                               ? error.warning_list.list[0].code
                               : error.code;
        const std::string insert = result == walk_warned && error.warning_list.length > 0
                                       ? error.warning_list.list[0].subst
                                       : error.subst;
        cp_emit(server, "conversion", agent.link.agent, 0,
                fmt::format("message of agent {} dropped: {}", agent.link.agent,
                            cp_message_text(number, insert)));
        free_warning_list(&error);
    }
    return result == walk_accepted;
}

}  // namespace

// A name may hold a '/', and must not lead out of the folder.
std::string cp_log_path(const cp_server& server, std::string_view agent) {
    std::string name(agent);
    std::replace(name.begin(), name.end(), '/', '_');
    return fmt::format("{}/agents/{}.log", server.store.folder, name);
}

void cp_answer_pending(cp_server& server, uint32_t code, const cp_answer& answer) {
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

void cp_handle_message(cp_server& server, cp_agent& agent) {
    cp_received& received = agent.link.received;
    if (cp_take_file_answer(server, agent,
                            {reinterpret_cast<const char*>(received.body.data()), received.body.size()})) {
        return;
    }
    if (!walked_to_host(server, agent, received.body)) {
        return;
    }
    const message_view view = view_message(received.body.data(), received.body.size());
    const frame_address& from = received.address;
    if (view.length == 0) {
        cp_answer_pending(server, from.dst_acv, {"NK", 7, "", ""});
        return;
    }
    for (const message_row& row : message_rows) {
        if (message_type_is(view.data, view.length, row.type)) {
            row.take(server, agent, view, from);
            return;
        }
    }
    cp_emit(
        server, "unknown", agent.link.agent, 0,
        fmt::format("agent {} sent '{}', which this server does not handle", agent.link.agent,
                    get_text(reinterpret_cast<const char*>(view.data), std::min<size_t>(view.length, 8))));
}

void cp_handle_lost_line(cp_server& server, cp_agent& agent) {
    const cp_answer lost{"--", 0, "the connection was lost", ""};
    std::vector<uint32_t> codes;
    for (auto& [code, pending] : server.pending) {
        // The answer to an activation may come over the next connection: it is a job that the agent still
        // holds.
        if (pending.agent_id == agent.id && pending.type != "EXAKTJ") {
            codes.push_back(code);
        }
    }
    for (uint32_t code : codes) {
        cp_answer_pending(server, code, lost);
    }
    cp_end_file_reads(server, agent);
    cp_doubt_forgotten_transfers(server, agent);
    std::vector<int> listings;
    for (auto& [id, listing] : server.listings) {
        if (listing.agent_id == agent.id) {
            listings.push_back(id);
        }
    }
    for (int id : listings) {
        cp_end_listing(server, id, lost);
    }
    std::vector<int> ids;
    for (auto& [id, fetch] : server.fetches) {
        if (fetch.agent_id == agent.id) {
            ids.push_back(id);
        }
    }
    for (int id : ids) {
        cp_end_fetch(server, id, lost);
    }
}

bool cp_stop_agent(cp_server* server, const std::string& name) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    _QX7_SYS_SHUTDOWN order{};
    put_text(order.cHost, agent->link.agent);
    order.bMode = ' ';
    put_text(order.cMsgIns, "");
    return cp_link_send_item(agent->link, server->identity, key_system_shutdown, &order, sizeof order);
}
