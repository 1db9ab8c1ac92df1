// Transfers in the older protocol, and lists of names: the source's agent connects to its partner first, then
// it gets the order.
#include <fmt/format.h>

#include "agent_messages.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "messages/records_connection.h"
#include "messages/records_server.h"
#include "messages/records_transfer.h"
#include "security/string_cipher.h"
#include "transfers.h"

namespace {

constexpr char module_legacy[] = "QXFTEX";

template <class Part>
auto inside(Part part) {
    return [part](MSG_TYPE_FT_SEND* record, size_t place, size_t amount) {
        part(&record->ft_send, place, amount);
    };
}

enum legacy_overwrite : char { overwrite_not = '0', overwrite_replace = '1', overwrite_append = '2' };
enum legacy_resume : char { resume_possible = '1', resume_now = '2' };

char letter_of_overwrite(char overwrite) {
    switch (overwrite) {
        case 'Y':
            return overwrite_replace;
        case 'A':
            return overwrite_append;
        default:
            return overwrite_not;
    }
}

void fill_order(MSG_TYPE_FT_SENDU& order, const cp_transfer& transfer) {
    order.ah_idnr = transfer.run;
    put_text(order.src_file, transfer.source.path);
    put_text(order.src_logininfo, transfer.source.user);
    put_text(order.dst_host, transfer.destination.agent);
    put_text(order.dst_file, transfer.destination.path);
    put_text(order.dst_logininfo, transfer.destination.user);
    order.type = transfer.text ? 'T' : 'B';
    order.ov = letter_of_overwrite(transfer.overwrite);
    order.erase = transfer.erase ? '1' : '0';
    order.compress = transfer.compress == 'S' ? '2' : transfer.compress;
    order.flag = transfer.restart_data.empty() ? resume_possible : resume_now;
}

std::string rest_of(const cp_transfer& transfer) {
    std::string rest;
    for (const auto& [key, attributes] :
         {std::pair{'1', transfer.source.attributes}, std::pair{'2', transfer.destination.attributes}}) {
        rest += attributes.empty() ? "" : fmt::format("{}=\x01{}\x01", key, attributes);
    }
    return rest;
}

void send_order(cp_server& server, cp_transfer& transfer, cp_agent& source) {
    message_builder<MSG_TYPE_FT_SEND> order(transfer.client, transfer.user_id, 2);
    fill_order(order->ft_send, transfer);
    order.add(inside(MSG_TYPE_FT_SENDU::rest), rest_of(transfer));
    order.add(inside(MSG_TYPE_FT_SENDU::cont), transfer.restart_data);
    const auto add_password = [&](auto part, cp_transfer_place& place) {
        if (!place.user.empty() && (server.options.check_passwords || !place.password.empty())) {
            order.add(inside(part), build_password_field(transfer.run, place.password));
        }
        qx_wipe(place.password.data(), place.password.size());
        place.password.clear();
    };
    add_password(MSG_TYPE_FT_SENDU::src_password, transfer.source);
    add_password(MSG_TYPE_FT_SENDU::dst_password, transfer.destination);
    cp_send(
        &server, source, module_legacy, order,
        [&server, run = transfer.run](const cp_answer& answer) {
            cp_transfer* asked = cp_find_transfer(&server, run);
            if (asked != nullptr && answer.status != "OK" && !cp_transfer_is_over(asked->state)) {
                cp_end_transfer(server, *asked,
                                answer.status == "--" ? cp_transfer_state::lost : cp_transfer_state::refused,
                                answer.number, answer.insert);
            }
        },
        transfer.run);
}

void take_restart_data(cp_transfer& transfer, message_view view, int dist, int length) {
    if (const auto data = view_text(view, dist, length); !data.empty()) {
        transfer.restart_data = data;
    }
}

cp_transfer* legacy_transfer(cp_server& server, const cp_agent& agent, int run) {
    cp_transfer* transfer = cp_find_transfer(&server, run);
    const bool right = transfer != nullptr && transfer->legacy && !cp_transfer_is_over(transfer->state) &&
                       strcasecmp(transfer->source.agent.c_str(), agent.link.agent.c_str()) == 0;
    return right ? transfer : nullptr;
}

}  // namespace

void cp_order_legacy(cp_server& server, cp_transfer& transfer, cp_agent& source, const cp_agent& destination,
                     const std::string& token) {
    cp_connect_agents(
        &server, source.link.agent, destination.link.agent, destination.listener, destination.listener_port,
        token, [&server, run = transfer.run](const cp_answer& answer) {
            cp_transfer* asked = cp_find_transfer(&server, run);
            if (asked == nullptr || cp_transfer_is_over(asked->state)) {
                return;
            }
            cp_agent* agent = cp_find_agent(&server, asked->source.agent);
            if (answer.status != "OK" || agent == nullptr) {
                cp_end_transfer(server, *asked, cp_transfer_state::refused, answer.number, answer.insert);
            } else {
                send_order(server, *asked, *agent);
            }
        });
}

void cp_cancel_legacy(cp_server& server, const cp_transfer& transfer, cp_agent& source) {
    auto order = new_message<MSG_TYPE_FT_CAN>(transfer.client, transfer.user_id);
    order.ah_idnr = transfer.run;
    cp_send(&server, source, module_legacy, order, [](const cp_answer&) {});  // FT_QUIT tells the end
}

void cp_take_legacy_status(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    const auto status = view_record<MSG_TYPE_FT_STA>(view);
    cp_transfer* transfer = legacy_transfer(server, agent, status.ah_idnr);
    if (transfer == nullptr) {
        return;
    }
    transfer->state = cp_transfer_state::running;
    transfer->figures.files_total = 1;
    transfer->figures.file_size = status.filesize;
    transfer->figures.sent_size = status.anzahl;
    transfer->figures.records = status.records;
    transfer->figures.compressed_size = status.anzahl_compr;
    transfer->figures.count = status.cnt;
    take_restart_data(*transfer, view, status.stp_dist, status.stp_len);
    cp_transfer_changed(server, *transfer);
}

void cp_take_legacy_end(cp_server& server, cp_agent& agent, message_view view, const frame_address&) {
    const auto end = view_record<MSG_TYPE_FT_QUIT>(view);
    cp_transfer* transfer = legacy_transfer(server, agent, static_cast<int>(end.ah_idnr));
    if (transfer == nullptr) {
        return;
    }
    const bool good = end.msgnr == 0;
    transfer->figures.files_total = 1;
    transfer->figures.files_sent = 1;
    transfer->figures.files_successful = good ? 1 : 0;
    transfer->figures.file_size = end.filesize;
    transfer->figures.sent_size = end.anzahl;
    transfer->figures.records = end.records;
    transfer->figures.compressed_size = end.anzahl_compr;
    take_restart_data(*transfer, view, end.stp_dist, end.stp_len);
    const cp_transfer_state state = good                                   ? cp_transfer_state::finished
                                    : end.msgnr == number_legacy_cancelled ? cp_transfer_state::cancelled
                                                                           : cp_transfer_state::failed;
    cp_end_transfer(server, *transfer, state, end.msgnr, std::string(get_text(end.msg_insert)));
}

void cp_lose_legacy_transfers(cp_server& server, const cp_agent& agent) {
    for (auto& [run, transfer] : server.store.transfers) {
        if (legacy_transfer(server, agent, run) != nullptr) {
            cp_end_transfer(server, transfer, cp_transfer_state::lost, 0, "the agent has logged on anew");
        }
    }
}

bool cp_list_directory(cp_server* server, const std::string& name, const cp_transfer_place& place,
                       bool with_folders, cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr || place.path.size() > sizeof MSG_TYPE_FT_DIR{}.filename) {
        return false;
    }
    message_builder<MSG_TYPE_FT_DIR> order(100, 1);
    const int id = server->next_request++;
    order->ah_idnr = id;
    put_text(order->filename, place.path);
    order->folder = with_folders ? 'Y' : 'N';
    put_text(order->logininfo, place.user);
    if (!place.user.empty() && (server->options.check_passwords || !place.password.empty())) {
        order.add(MSG_TYPE_FT_DIR::password, build_password_field(id, place.password));
    }
    server->listings[id] = {agent->id, "", handler};
    return cp_send(server, *agent, module_legacy, order, [server, id](const cp_answer& answer) {
        if (answer.status != "OK") {
            cp_end_listing(*server, id, answer);
        }
    });
}

void cp_end_listing(cp_server& server, int id, cp_answer answer) {
    auto found = server.listings.find(id);
    if (found == server.listings.end()) {
        return;
    }
    cp_listing listing = std::move(found->second);
    server.listings.erase(found);
    answer.data = answer.status == "OK" ? listing.names : "";
    listing.handler(answer);
}

void cp_take_names(cp_server& server, cp_agent& agent, message_view view, const frame_address& from) {
    const auto message = view_record<MSG_TYPE_FT_FILE>(view);
    auto found = server.listings.find(message.ah_idnr);
    if (found == server.listings.end() || found->second.agent_id != agent.id) {
        return;
    }
    table_cursor cursor = view_table(view, sizeof message);
    for (int i = 0; i < message.fileanz && !cursor.failed; ++i) {
        const std::string path{cursor_text(&cursor, sizeof(MSG_TYPE_FT_FILEG::path))};
        const std::string name{cursor_text(&cursor, sizeof(MSG_TYPE_FT_FILEG::filename))};
        if (!cursor.failed) {
            found->second.names += path + (path.ends_with('/') ? "" : "/") + name + '\n';
        }
    }
    if (message.fileanz == 0) {
        cp_end_listing(server, message.ah_idnr, {"OK", 0, "", ""});
        return;
    }
    auto more = new_message<MSG_TYPE_QUITT>(view_head(view).i2Mandant, view_head(view).i4UsrIdNr);
    put_text(more.msg, "FT_FILE");
    put_text(more.quitt, "OK");
    frame_address address{};
    std::snprintf(address.dst_name, sizeof address.dst_name, "%s", module_legacy);
    std::snprintf(address.src_addr, sizeof address.src_addr, "%s", own_address);
    std::snprintf(address.src_name, sizeof address.src_name, "%s", own_module);
    address.dst_acv = from.src_acv;
    cp_link_send(agent.link, server.identity, address, more);
}
