// Reports of jobs, fetched block by block.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent_messages.h"
#include "base/message_numbers.h"
#include "base/time.h"
#include "messages/records_report.h"

namespace {

constexpr int no_block_limit = 0x7FFFFFFF;
constexpr time_t progress_interval = 1;  // seconds

}  // namespace

void cp_end_fetch(cp_server& server, int id, const cp_answer& answer) {
    auto found = server.fetches.find(id);
    if (found == server.fetches.end()) {
        return;
    }
    cp_fetch fetch = std::move(found->second);
    server.fetches.erase(found);
    cp_answer result = answer;
    if (fetch.wish.tail && fetch.tail_held) {
        std::fwrite(fetch.tail.data(), 1, fetch.tail.size(), fetch.file);
    }
    if (std::fclose(fetch.file) != 0 && result.status == "OK") {
        result.status = "NK";
        result.insert = fmt::format("cannot write '{}': {}", fetch.wish.path, std::strerror(errno));
    }
    if (result.status != "OK") {
        unlink(fetch.wish.path.c_str());  // what came is not the report
    }
    if (fetch.handler) {
        fetch.handler(result);
    }
}

void cp_take_report_block(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    auto block = view_record<MSG_TYPE_REP_DATA>(view);
    auto found = server.fetches.find(block.ah_idnr);
    if (found == server.fetches.end()) {
        return;
    }
    cp_fetch& fetch = found->second;
    std::string text{view_text(view, block.data_dist, block.data_len)};
    std::erase(text, '\r');
    bool good = true;
    fetch.bytes += static_cast<int64_t>(text.size());
    if (const time_t now = alarm_now(); fetch.run != 0 && now - fetch.last_told >= progress_interval) {
        fetch.last_told = now;
        cp_control_tell_progress(server, fetch.run, fetch.bytes);
    }
    if (fetch.wish.tail) {
        fetch.tail = std::move(text);
        fetch.tail_held = true;
    } else {
        good = std::fwrite(text.data(), 1, text.size(), fetch.file) == text.size();
    }
    auto next = new_message<MSG_TYPE_REP_QUIT>(view_head(view).i2Mandant, view_head(view).i4UsrIdNr);
    next.ah_idnr = block.ah_idnr;
    next.rep_ah_idnr = block.rep_ah_idnr;
    next.rep_rh_idnr = block.rep_rh_idnr;
    std::memcpy(next.rep_type, block.rep_type, sizeof next.rep_type);
    fetch.block = block.rep_blk + 1;
    next.rep_blk = fetch.block;
    next.msgnr = good ? 0 : number_file_call;
    put_text(next.msg_insert,
             good ? "" : fmt::format("fwrite|{}|{}|{}|", fetch.wish.path, errno, std::strerror(errno)));
    cp_send(&server, agent, module_reports, next);
}

void cp_take_report_end(cp_server& server, cp_agent&, message_view view, const frame_address&) {
    auto end = view_record<MSG_TYPE_REP_END>(view);
    cp_answer answer;
    answer.number = end.msgnr;
    answer.insert = get_text(end.msg_insert);
    const bool good = end.msgnr == 0 || end.msgnr == number_report_block_limit ||
                      end.msgnr == number_report_line_limit || end.msgnr == number_report_ended;
    answer.status = good ? "OK" : "NK";
    cp_end_fetch(server, end.ah_idnr, answer);
}

bool cp_fetch_report(cp_server* server, int run, const cp_report_wish& wish, cp_answer_handler handler) {
    cp_job* job = cp_find_job(server, run);
    cp_agent* agent = job == nullptr || job->agent.empty() ? nullptr : cp_find_agent(server, job->agent);
    FILE* file = agent == nullptr ? nullptr : std::fopen(wish.path.c_str(), "wb");
    if (file == nullptr) {
        return false;
    }
    message_builder<MSG_TYPE_REP_GET> order(job->client, job->user_id);
    order->ah_idnr = server->next_request++;
    put_text(order->filename, job->report_file);
    order->rep_ah_idnr = run;
    put_text(order->rep_type, "REP");
    order->blksize = wish.block_size != 0 ? wish.block_size : server->options.block_size;
    order->erase = wish.erase ? '1' : '0';
    order->maxrecords = wish.max_records;
    order->maxblk = wish.tail ? 1 : no_block_limit;
    order.add(MSG_TYPE_REP_GET::match, wish.match);
    cp_fetch fetch;
    fetch.agent_id = agent->id;
    fetch.run = run;
    fetch.file = file;
    fetch.wish = wish;
    fetch.last_told = alarm_now();
    fetch.handler = std::move(handler);
    server->fetches[order->ah_idnr] = std::move(fetch);
    return cp_send(server, *agent, module_reports, order);
}
