// The order of a transfer: what it says, and the token that lets the two agents meet.
#include <fmt/format.h>

#include "agent_messages.h"
#include "base/memory.h"
#include "base/text.h"
#include "messages/records_transfer.h"
#include "qxcp/control/control.h"
#include "security/string_cipher.h"
#include "transfers.h"

namespace {

constexpr char attribute_delimiter = '\x01';
constexpr int relay_of_answers = 2;  // in svc_list

// The part of a field that stands in the record inside the order.
template <class Part>
auto inside(Part part) {
    return [part](MSG_TYPE_FTXSEND* record, size_t place, size_t amount) {
        part(&record->ftxsndrcv, place, amount);
    };
}

char yes(bool wish) {
    return wish ? 'Y' : 'N';
}

std::string rest_of(const cp_transfer& transfer) {
    std::string rest;
    const auto add = [&rest](char key, const std::string& attributes) {
        if (!attributes.empty()) {
            rest += fmt::format("{}={}{}{}", key, attribute_delimiter, attributes, attribute_delimiter);
        }
    };
    add('1', transfer.source.attributes);
    add('2', transfer.destination.attributes);
    return rest;
}

std::string password_of(const cp_server& server, const cp_transfer& transfer,
                        const cp_transfer_place& place) {
    const bool wanted = server.options.check_passwords || !place.password.empty();
    return place.user.empty() || !wanted ? "" : build_password_field(transfer.run, place.password);
}

void fill_order(MSG_TYPE_FTXSNDRCV& order, const cp_transfer& transfer, const cp_agent& peer) {
    order.ah_idnr = transfer.run;
    order.ah_idnr2 = transfer.origin;
    put_text(order.src_logininfo, transfer.source.user);
    put_text(order.dst_logininfo, transfer.destination.user);
    put_text(order.dst_host, transfer.destination.agent);
    order.type = transfer.text ? 'T' : 'B';
    order.override = transfer.overwrite;
    order.erase = yes(transfer.erase);
    order.subdir = yes(transfer.subfolders);
    order.compress = transfer.compress;
    order.restart = transfer.origin != 0 ? '1' : '2';
    order.wildcard = yes(transfer.wildcard);
    order.file_attributes = 'N';
    put_text(order.connect_name, peer.link.agent);
    put_text(order.connect_ip, peer.listener);
    order.connect_port = peer.listener_port;
    order.async_quit_min = transfer.window_min;
    order.async_quit_max = transfer.window_max;
    order.async_quit_num = transfer.window_num;
    order.svc_list = transfer.reverse ? relay_of_answers : 0;
    order.abort_on_error = yes(transfer.abort_on_error);
    order.can_continue = 'Y';
    order.subdirstruct = transfer.subfolders ? 1 : 0;
}

void send_order(cp_server& server, const cp_transfer& transfer, cp_agent& caller, const cp_agent& peer,
                const std::string& token, cp_answer_handler handler) {
    message_builder<MSG_TYPE_FTXSEND> order(transfer.client, transfer.user_id);
    fill_order(order->ftxsndrcv, transfer, peer);
    std::string source_password = password_of(server, transfer, transfer.source);
    std::string destination_password = password_of(server, transfer, transfer.destination);
    order.add(inside(MSG_TYPE_FTXSNDRCV::src_file), transfer.source.path);
    order.add(inside(MSG_TYPE_FTXSNDRCV::dst_file), transfer.destination.path);
    order.add(inside(MSG_TYPE_FTXSNDRCV::src_code), transfer.text ? transfer.coding : "");
    order.add(inside(MSG_TYPE_FTXSNDRCV::gss_token), token);
    order.add(inside(MSG_TYPE_FTXSNDRCV::rest), rest_of(transfer));
    order.add(inside(MSG_TYPE_FTXSNDRCV::src_password), source_password);
    order.add(inside(MSG_TYPE_FTXSNDRCV::dst_password), destination_password);
    cp_send(&server, caller, module_transfers, order, std::move(handler), transfer.run);
}

void wipe_passwords(cp_transfer& transfer) {
    for (std::string* password : {&transfer.source.password, &transfer.destination.password}) {
        qx_wipe(password->data(), password->size());
        password->clear();
    }
}

// An order that was not taken; FTXSENDQ tells of one that was.
cp_answer_handler refused_order(cp_server& server, int run) {
    return [&server, run](const cp_answer& answer) {
        cp_transfer* transfer = cp_find_transfer(&server, run);
        if (transfer != nullptr && answer.status == "NK" && !cp_transfer_is_over(transfer->state)) {
            cp_end_transfer(server, *transfer, cp_transfer_state::refused, answer.number, answer.insert);
        }
    };
}

std::string fault_of_agents(const cp_server& server, cp_transfer& transfer, const cp_agent* source,
                            const cp_agent* destination) {
    for (const auto& [agent, place] :
         {std::pair{source, &transfer.source}, std::pair{destination, &transfer.destination}}) {
        if (agent == nullptr) {
            return control_no_agent_text(server, place->agent);
        }
        place->agent = agent->link.agent;  // as the agent writes it: keys go by it
    }
    return source == destination ? "a transfer goes from one agent to another one" : "";
}

std::string fault_of_order(const cp_transfer& transfer) {
    constexpr size_t longest_path = 2047;
    constexpr size_t longest_user = 200;
    for (const cp_transfer_place* place : {&transfer.source, &transfer.destination}) {
        if (place->path.empty() || place->path.size() > longest_path || place->user.size() > longest_user) {
            return fmt::format("a path has 1 to {} bytes, and the name of a user at most {}", longest_path,
                               longest_user);
        }
        if (place->path.find('\0') != std::string::npos ||
            place->attributes.find(attribute_delimiter) != std::string::npos) {
            return "a path holds no byte 0, and attributes no byte 1";
        }
    }
    return "";
}

}  // namespace

int cp_order_transfer(cp_server* server, cp_transfer transfer, std::string& error) {
    cp_agent* source = cp_find_agent(server, transfer.source.agent);
    cp_agent* destination = cp_find_agent(server, transfer.destination.agent);
    error = fault_of_agents(*server, transfer, source, destination);
    error = error.empty() ? fault_of_order(transfer) : error;
    std::string token;
    cp_agent* caller = transfer.reverse && !transfer.legacy ? destination : source;
    cp_agent* peer = caller == source ? destination : source;
    if (!error.empty() || !cp_delegation_token(server, caller->link.agent, peer->link.agent, token, error)) {
        return 0;
    }
    transfer.run = server->store.next_run++;
    if (error = cp_store_save_numbers(server->store); !error.empty()) {
        return 0;
    }
    transfer.start_time = cp_time_text();
    const int run = transfer.run;
    cp_transfer& kept = server->store.transfers[run] = std::move(transfer);
    cp_emit(*server, "transfer", kept.source.agent, run,
            fmt::format("transfer {} of {} from agent {} to agent {} ordered, {} connects", run,
                        printable(kept.source.path), kept.source.agent, kept.destination.agent,
                        caller->link.agent));
    if (kept.legacy) {
        cp_order_legacy(*server, kept, *caller, *peer, token);
    } else {
        send_order(*server, kept, *caller, *peer, token, refused_order(*server, run));
        wipe_passwords(kept);
    }
    cp_transfer_changed(*server, kept);
    return run;
}

int cp_restart_transfer(cp_server* server, int run, const cp_transfer& again, std::string& error) {
    const cp_transfer* old = cp_find_transfer(server, run);
    if (old == nullptr) {
        error = fmt::format("there is no transfer {}: see 'qxcp transfers'", run);
        return 0;
    }
    if (!cp_transfer_is_over(old->state)) {
        error = fmt::format("transfer {} is not over: see 'qxcp transfers'", run);
        return 0;
    }
    if (old->state == cp_transfer_state::finished) {
        error = fmt::format("transfer {} is finished: nothing is left of it", run);
        return 0;
    }
    cp_transfer next;
    next.origin = old->origin != 0 ? old->origin : old->run;
    next.client = old->client;
    next.user_id = old->user_id;
    next.source = old->source;
    next.destination = old->destination;
    next.source.password = again.source.password;
    next.destination.password = again.destination.password;
    next.text = old->text;
    next.wildcard = old->wildcard;
    next.subfolders = old->subfolders;
    next.erase = old->erase;
    next.abort_on_error = old->abort_on_error;
    next.reverse = old->reverse;
    next.legacy = old->legacy;
    next.compress = old->compress;
    next.overwrite = old->overwrite;
    next.coding = old->coding;
    next.window_min = old->window_min;
    next.window_max = old->window_max;
    next.window_num = old->window_num;
    next.resume_known = old->resume_known;
    next.restart_data = old->restart_data;
    return cp_order_transfer(server, std::move(next), error);
}

int cp_transfer_between(const cp_server* server, const cp_transfer_place& source,
                        const cp_transfer_place& destination) {
    const auto same = [](const cp_transfer_place& a, const cp_transfer_place& b) {
        return strcasecmp(a.agent.c_str(), b.agent.c_str()) == 0 && a.path == b.path;
    };
    const auto& all = server->store.transfers;
    for (auto at = all.rbegin(); at != all.rend(); ++at) {
        if (same(at->second.source, source) && same(at->second.destination, destination)) {
            return at->first;
        }
    }
    return 0;
}

std::string cp_complete_paths(cp_transfer& transfer) {
    std::string& source = transfer.source.path;
    std::string& destination = transfer.destination.path;
    if (source.empty() || destination.empty()) {
        return "both ends need a path: AGENT:PATH";
    }
    if (source.back() == '/') {
        source += "*";
        transfer.wildcard = true;
    }
    if (destination.back() == '/') {
        destination += transfer.wildcard ? "*" : source.substr(source.find_last_of('/') + 1);
    }
    return "";
}
