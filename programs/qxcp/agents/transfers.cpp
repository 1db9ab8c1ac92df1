// What agents tell of transfers, and what the server asks and orders of running ones.
#include "transfers.h"

#include <fmt/format.h>

#include <algorithm>

#include "agent_messages.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "messages/records_transfer.h"
#include "qxcp/control/control.h"
#include "qxcp/message_text.h"

namespace {

constexpr int report_block_size = 32000;
// An order to forget that was sent so few seconds before the line was lost may not have come.
constexpr time_t forget_doubt = 60;

enum ftx_end_letter : char { letter_running = 'R', letter_finished = 'F', letter_cancelled = 'C' };
enum unknown_to_bit : int { unknown_to_source = 1, unknown_to_destination = 2 };

bool is_agent(const cp_transfer_place& place, const cp_agent& agent) {
    return strcasecmp(place.agent.c_str(), agent.link.agent.c_str()) == 0;
}

// Null with an event when the agent has no part in the transfer of that number.
cp_transfer* transfer_of(cp_server& server, const cp_agent& agent, int run, const char* what) {
    cp_transfer* transfer = cp_find_transfer(&server, run);
    if (transfer != nullptr &&
        (is_agent(transfer->source, agent) || is_agent(transfer->destination, agent))) {
        return transfer;
    }
    cp_emit(server, "unknown", agent.link.agent, run,
            fmt::format("agent {} sends {} for transfer {}, in which it has no part", agent.link.agent, what,
                        run));
    return nullptr;
}

void send_forget(cp_server& server, cp_agent& agent, int run, uint16_t client, uint32_t user) {
    auto order = new_message<MSG_TYPE_FTXDEL>(client, user);
    order.ah_idnr = run;
    cp_send(&server, agent, module_transfers, order);
}

// With its state and its whole report here the source's agent may forget a transfer.
void forget_when_whole(cp_server& server, cp_transfer& transfer) {
    cp_agent* agent = cp_find_agent(&server, transfer.source.agent);
    if (agent == nullptr || transfer.forgotten || !transfer.report_complete ||
        !cp_transfer_is_over(transfer.state)) {
        return;
    }
    send_forget(server, *agent, transfer.run, transfer.client, transfer.user_id);
    transfer.forgotten = true;
    transfer.forgotten_at = alarm_now();
}

void ask_for_report(cp_server& server, const cp_transfer& transfer) {
    cp_agent* agent = cp_find_agent(&server, transfer.source.agent);
    if (agent == nullptr) {
        return;  // its logon asks
    }
    auto request = new_message<MSG_TYPE_FTXREPG>(transfer.client, transfer.user_id);
    request.ah_idnr = transfer.run;
    request.block_size = report_block_size;
    request.last_id = transfer.last_line;
    cp_send(&server, *agent, module_transfers, request);
}

std::string stamp_text(const MSG_TYPE_TIMESTAMP& stamp) {
    return stamp.jjjj == 0 ? ""
                           : fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", stamp.jjjj, stamp.mo,
                                         stamp.tt, stamp.hh, stamp.mi, stamp.ss);
}

cp_transfer_state state_of_letter(char letter) {
    switch (letter) {
        case letter_running:
            return cp_transfer_state::running;
        case letter_finished:
            return cp_transfer_state::finished;
        case letter_cancelled:
            return cp_transfer_state::cancelled;
        default:
            return cp_transfer_state::failed;
    }
}

void take_figures(cp_transfer& transfer, const MSG_TYPE_FTXSTA& status) {
    cp_transfer_figures& figures = transfer.figures;
    figures.files_total = status.files_total;
    figures.files_sent = status.files_sent;
    figures.files_successful = status.files_successful;
    figures.dirs_total = status.dir_total;
    figures.dirs_sent = status.dir_sent;
    figures.dirs_successful = status.dir_successfull;
    figures.file_size = status.file_size;
    figures.sent_size = status.sent_size;
    figures.compressed_size = status.compressed_size;
    figures.datastream_size = status.datastream_size;
    figures.records = status.records;
    figures.count = status.count;
}

cp_report_block block_of(message_view view, const MSG_TYPE_FTXWRITE& message) {
    cp_report_block block;
    block.status = message.status;
    block.last_id = message.last_id;
    table_cursor cursor = view_table(view, sizeof message);
    for (int i = 0; i < message.count && !cursor.failed; ++i) {
        const auto record = cursor_record<MSG_TYPE_FTXWRITE_RECORD>(&cursor);
        const auto text = view_text(view, record.msl_dist, record.msl_len);
        cursor_bytes(&cursor, text.size());
        if (!cursor.failed) {
            block.lines.push_back({0, stamp_text(record.timestamp), record.msl_id, std::string(text)});
        }
    }
    return block;
}

void send_cancel(cp_server& server, cp_agent& agent, const cp_transfer& transfer) {
    auto order = new_message<MSG_TYPE_FTXCANC>(transfer.client, transfer.user_id);
    order.ah_idnr = transfer.run;
    cp_send(&server, agent, module_transfers, order);
}

// A cancel that went to the destination while the order was on its way to the source did not end it: only a sender
// can end a transfer so that its files are accounted for.
void repeat_cancel(cp_server& server, const cp_transfer& transfer) {
    cp_agent* source = cp_find_agent(&server, transfer.source.agent);
    if (transfer.reverse && transfer.cancel_ordered && source != nullptr) {
        send_cancel(server, *source, transfer);
    }
}

void agent_knows_nothing(cp_server& server, cp_transfer& transfer, int bit, const cp_answer& answer) {
    transfer.unknown_to |= bit;
    const bool both = transfer.reverse && transfer.state == cp_transfer_state::ordered;
    const int needed = both ? unknown_to_source | unknown_to_destination : unknown_to_source;
    if ((transfer.unknown_to & needed) != needed) {
        return;
    }
    if (cp_transfer_is_over(transfer.state)) {  // only a part of its report is missing
        transfer.forgotten = true;
        transfer.report_complete = true;
        cp_transfer_changed(server, transfer);
        return;
    }
    cp_end_transfer(server, transfer, cp_transfer_state::lost, answer.number, answer.insert);
}

void ask_agent(cp_server& server, cp_agent& agent, const cp_transfer& transfer, int bit) {
    auto question = new_message<MSG_TYPE_FTXINF>(transfer.client, transfer.user_id);
    question.ah_idnr = transfer.run;
    question.ref_ah_idnr = transfer.origin;
    cp_send(&server, agent, module_transfers, question,
            [&server, bit, run = transfer.run](const cp_answer& answer) {
                cp_transfer* asked = cp_find_transfer(&server, run);
                if (asked == nullptr || answer.status == "--") {
                    return;  // the next logon asks
                }
                if (answer.status != "OK") {
                    agent_knows_nothing(server, *asked, bit, answer);
                } else if (bit == unknown_to_source && asked->state != cp_transfer_state::ordered) {
                    ask_for_report(server, *asked);  // what was on its way may be lost
                }
            });
}

}  // namespace

cp_transfer* cp_find_transfer(cp_server* server, int run) {
    auto found = server->store.transfers.find(run);
    return found == server->store.transfers.end() ? nullptr : &found->second;
}

void cp_transfer_changed(cp_server& server, const cp_transfer& transfer) {
    if (std::string fault = cp_store_save_transfer(server.store, transfer); !fault.empty()) {
        cp_emit(server, "store", "", transfer.run, fault);
    }
    cp_control_tell_transfer(server, transfer);
}

void cp_end_transfer(cp_server& server, cp_transfer& transfer, cp_transfer_state state, int number,
                     const std::string& insert) {
    transfer.state = state;
    transfer.message_number = number;
    transfer.message_insert = insert;
    transfer.end_time = transfer.end_time.empty() ? cp_time_text() : transfer.end_time;
    // Nothing more comes of one that has no worker.
    transfer.report_complete = true;
    transfer.forgotten = true;
    cp_emit(server, "transfer", transfer.source.agent, transfer.run,
            fmt::format("transfer {} {}: {}", transfer.run, cp_transfer_state_name(state),
                        cp_message_text(number, insert)));
    cp_transfer_changed(server, transfer);
}

void cp_take_transfer_start(cp_server& server, cp_agent& agent, message_view view,
                            const frame_address& from) {
    const auto answer = view_record<MSG_TYPE_FTXSENDQ>(view);
    cp_transfer* transfer = transfer_of(server, agent, answer.ah_idnr, "FTXSENDQ");
    if (transfer == nullptr || cp_transfer_is_over(transfer->state)) {
        return;
    }
    // No QUITT follows.
    if (auto found = server.pending.find(from.dst_acv);
        found != server.pending.end() && found->second.run == transfer->run) {
        server.pending.erase(found);
    }
    if (answer.msl_no != 0) {
        const std::string insert{view_text(view, answer.msl_dist, answer.msl_len)};
        const cp_transfer_state state =
            answer.msl_no == number_transfer_cancelled      ? cp_transfer_state::cancelled
            : transfer->state == cp_transfer_state::running ? cp_transfer_state::failed
                                                            : cp_transfer_state::refused;
        cp_end_transfer(server, *transfer, state, answer.msl_no, insert);
        return;
    }
    if (transfer->state == cp_transfer_state::ordered) {
        repeat_cancel(server, *transfer);
    }
    transfer->state = cp_transfer_state::running;
    transfer->figures.files_total = answer.files_total;
    transfer->figures.file_size = answer.size_total;
    cp_emit(server, "transfer", transfer->source.agent, transfer->run,
            fmt::format("transfer {} runs: {} files, {} bytes", transfer->run, answer.files_total,
                        static_cast<int64_t>(answer.size_total)));
    cp_transfer_changed(server, *transfer);
    ask_for_report(server, *transfer);
}

void cp_take_transfer_status(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    const auto status = view_record<MSG_TYPE_FTXSTA>(view);
    cp_transfer* transfer = transfer_of(server, agent, status.ah_idnr, "FTXSTA");
    if (transfer == nullptr || transfer->forgotten) {
        return;
    }
    const bool was_over = cp_transfer_is_over(transfer->state);
    if (was_over && status.status_flag == letter_running) {
        return;  // overtaken
    }
    if (transfer->state == cp_transfer_state::ordered) {
        ask_for_report(server, *transfer);  // FTXSENDQ was lost with the agent that relays it
    }
    take_figures(*transfer, status);
    if (transfer->state == cp_transfer_state::ordered && status.status_flag == letter_running) {
        repeat_cancel(server, *transfer);
    }
    transfer->state = state_of_letter(status.status_flag);
    if (status.msl_no != 0) {
        transfer->message_number = status.msl_no;
        transfer->message_insert = view_text(view, status.msl_dist, status.msl_len);
    }
    if (!was_over && cp_transfer_is_over(transfer->state)) {
        transfer->end_time = stamp_text(status.end_time);
        transfer->end_time = transfer->end_time.empty() ? cp_time_text() : transfer->end_time;
        cp_emit(server, "transfer", transfer->source.agent, transfer->run,
                fmt::format("transfer {} {}: {} of {} files, {} bytes", transfer->run,
                            cp_transfer_state_name(transfer->state), transfer->figures.files_successful,
                            transfer->figures.files_total, transfer->figures.sent_size));
    }
    forget_when_whole(server, *transfer);
    cp_transfer_changed(server, *transfer);
}

void cp_take_transfer_report(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    const auto message = view_record<MSG_TYPE_FTXWRITE>(view);
    cp_transfer* transfer = transfer_of(server, agent, message.ah_idnr, "FTXWRITE");
    if (transfer == nullptr || transfer->forgotten) {
        if (transfer != nullptr && message.last_id < 0) {
            // A worker in the place of one that was lost with the order to forget.
            send_forget(server, agent, transfer->run, transfer->client, transfer->user_id);
        }
        return;
    }
    const std::vector<cp_report_line> fresh = cp_transfer_take_block(*transfer, block_of(view, message));
    if (std::string fault = cp_store_add_lines(server.store, transfer->run, fresh); !fault.empty()) {
        cp_emit(server, "store", agent.link.agent, transfer->run, fault);
    }
    if (transfer->report_complete) {
        forget_when_whole(server, *transfer);
    } else {
        ask_for_report(server, *transfer);
    }
    cp_transfer_changed(server, *transfer);
}

void cp_ask_for_transfers(cp_server& server, cp_agent& agent) {
    for (auto& [run, transfer] : server.store.transfers) {
        if (transfer.forgotten || transfer.legacy) {
            continue;
        }
        if (is_agent(transfer.source, agent)) {
            ask_agent(server, agent, transfer, unknown_to_source);
        } else if (is_agent(transfer.destination, agent) && transfer.reverse &&
                   transfer.state == cp_transfer_state::ordered) {
            ask_agent(server, agent, transfer, unknown_to_destination);
        }
    }
}

void cp_doubt_forgotten_transfers(cp_server& server, const cp_agent& agent) {
    for (auto& [run, transfer] : server.store.transfers) {
        if (transfer.forgotten_at != 0 && is_agent(transfer.source, agent) &&
            alarm_now() - transfer.forgotten_at < forget_doubt) {
            transfer.forgotten = false;
            transfer.forgotten_at = 0;
        }
    }
}

bool cp_cancel_transfer(cp_server* server, int run, std::string& error) {
    cp_transfer* transfer = cp_find_transfer(server, run);
    if (transfer == nullptr) {
        error = fmt::format("there is no transfer {}: see 'qxcp transfers'", run);
        return false;
    }
    if (cp_transfer_is_over(transfer->state)) {
        error = fmt::format("transfer {} was not cancelled: it is over ({})", run,
                            cp_transfer_state_name(transfer->state));
        return false;
    }
    // Before the connection stands a reverse order is with the agent that got it.
    const bool at_destination = transfer->reverse && transfer->state == cp_transfer_state::ordered;
    const cp_transfer_place& holder = at_destination ? transfer->destination : transfer->source;
    cp_agent* agent = cp_find_agent(server, holder.agent);
    if (agent == nullptr) {
        error = fmt::format("agent {}, which has transfer {}, is not logged on", holder.agent, run);
        return false;
    }
    if (transfer->legacy) {
        cp_cancel_legacy(*server, *transfer, *agent);
    } else {
        send_cancel(*server, *agent, *transfer);
    }
    if (transfer->cancel_ordered && !transfer->legacy) {
        // An order for what is unknown gets no answer, a question does.
        ask_agent(*server, *agent, *transfer, at_destination ? unknown_to_destination : unknown_to_source);
    }
    transfer->cancel_ordered = true;
    cp_emit(*server, "transfer", agent->link.agent, run, fmt::format("transfer {} is being cancelled", run));
    cp_transfer_changed(*server, *transfer);
    return true;
}
