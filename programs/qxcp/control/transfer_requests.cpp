// The console's requests about transfers.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "control.h"
#include "qxcp/agents/transfers.h"
#include "qxcp/hex.h"

using nlohmann::json;

namespace {

// A path comes as hexadecimal text: it need not be UTF-8.
cp_transfer_place place_of(const json& request, const char* end) {
    const json j = request.value(end, json::object());
    cp_transfer_place place;
    place.agent = j.value("agent", "");
    place.path = cp_from_hex(j.value("path", "")).value_or("");
    place.user = j.value("user", "");
    place.password = j.value("password", "");
    place.attributes = j.value("attributes", "");
    return place;
}

cp_transfer transfer_of(const json& request) {
    cp_transfer transfer;
    transfer.source = place_of(request, "source");
    transfer.destination = place_of(request, "destination");
    transfer.client = request.value("client", transfer.client);
    transfer.text = request.value("text", false);
    transfer.wildcard = request.value("wildcard", false);
    transfer.subfolders = request.value("subfolders", false);
    transfer.erase = request.value("erase", false);
    transfer.abort_on_error = request.value("abort_on_error", false);
    transfer.reverse = request.value("reverse", false);
    transfer.legacy = request.value("legacy", false);
    transfer.compress = request.value("compress", "0").append("0")[0];
    transfer.overwrite = request.value("overwrite", "N").append("N")[0];
    transfer.coding = request.value("coding", "");
    return transfer;
}

json report_of(const cp_server& server, int run) {
    json lines = json::array();
    for (const cp_report_line& line : cp_store_lines(server.store, run)) {
        lines.push_back({{"time", line.time}, {"number", line.number}, {"text", cp_report_line_text(line)}});
    }
    return lines;
}

// Everything that will come of it is here.
bool is_whole(const cp_transfer& transfer) {
    return cp_transfer_is_over(transfer.state) && transfer.report_complete;
}

void tell_transfer(const cp_server& server, cp_control_client& client, const cp_transfer& transfer) {
    const json line = cp_transfer_json(transfer);
    if (is_whole(transfer)) {
        client.watched_transfer = 0;
        control_finish(client,
                       {{"ok", true}, {"transfer", line}, {"report", report_of(server, transfer.run)}});
        return;
    }
    std::string told = line.dump(-1, ' ', false, json::error_handler_t::replace);
    if (told != client.last_told) {
        client.last_told = std::move(told);
        control_tell(client, {{"transfer", line}});
    }
}

// The run that `request` wants to go on with: the one that it names, or the newest between its paths.
int run_to_restart(cp_server& server, const json& request, const cp_transfer& wish, std::string& error) {
    const int run = request.value("restart", 0);
    const int found = run != 0 ? run : cp_transfer_between(&server, wish.source, wish.destination);
    if (found == 0) {
        error = "no transfer between these two was ordered before: leave --restart away";
    }
    return found;
}

}  // namespace

void cp_control_tell_transfer(cp_server& server, const cp_transfer& transfer) {
    for (auto& client : server.clients) {
        if (client->watched_transfer == transfer.run && !client->close_when_written) {
            tell_transfer(server, *client, transfer);
        }
    }
}

void control_transfer(cp_server& server, cp_control_client& client, const json& request) {
    cp_transfer wish = transfer_of(request);
    const bool by_number = request.value("restart", 0) != 0 && wish.source.path.empty();
    std::string error = by_number ? "" : cp_complete_paths(wish);
    int run = 0;
    if (error.empty() && request.contains("restart")) {
        const int old = run_to_restart(server, request, wish, error);
        run = old == 0 ? 0 : cp_restart_transfer(&server, old, wish, error);
    } else if (error.empty()) {
        run = cp_order_transfer(&server, std::move(wish), error);
    }
    if (run == 0) {
        control_refuse(client, error);
        return;
    }
    client.watched_transfer = run;
    tell_transfer(server, client, *cp_find_transfer(&server, run));
}

void control_transfers(cp_server& server, cp_control_client& client, const json& request) {
    const size_t last = static_cast<size_t>(std::max(request.value("last", 0), 0));
    const std::string agent = request.value("agent", "");
    json list = json::array();
    for (const auto& [run, transfer] : server.store.transfers) {
        const bool concerns = agent.empty() ||
                              strcasecmp(agent.c_str(), transfer.source.agent.c_str()) == 0 ||
                              strcasecmp(agent.c_str(), transfer.destination.agent.c_str()) == 0;
        if (concerns) {
            list.push_back(cp_transfer_json(transfer));
        }
    }
    if (last != 0 && list.size() > last) {
        list.erase(list.begin(), list.end() - static_cast<std::ptrdiff_t>(last));
    }
    control_finish(client, {{"ok", true}, {"transfers", list}});
}

void control_transfer_report(cp_server& server, cp_control_client& client, const json& request) {
    const int run = request.value("run", 0);
    const cp_transfer* transfer = cp_find_transfer(&server, run);
    if (transfer == nullptr) {
        control_refuse(client, fmt::format("there is no transfer {}: see 'qxcp transfers'", run));
        return;
    }
    control_finish(
        client,
        {{"ok", true}, {"transfer", cp_transfer_json(*transfer)}, {"report", report_of(server, run)}});
}

void control_transfer_watch(cp_server& server, cp_control_client& client, const json& request) {
    const int run = request.value("run", 0);
    const cp_transfer* transfer = cp_find_transfer(&server, run);
    if (transfer == nullptr) {
        control_refuse(client, fmt::format("there is no transfer {}: see 'qxcp transfers'", run));
        return;
    }
    client.watched_transfer = run;
    tell_transfer(server, client, *transfer);
}

void control_transfer_cancel(cp_server& server, cp_control_client& client, const json& request) {
    const int run = request.value("run", 0);
    std::string error;
    if (!cp_cancel_transfer(&server, run, error)) {
        control_refuse(client, error);
        return;
    }
    control_finish(client, {{"ok", true},
                            {"text", fmt::format("transfer {} is being cancelled", run)},
                            {"transfer", cp_transfer_json(*cp_find_transfer(&server, run))}});
}

void control_dir(cp_server& server, cp_control_client& client, const json& request) {
    const cp_transfer_place place = place_of(request, "place");
    const bool sent = cp_list_directory(
        &server, place.agent, place, request.value("folders", false),
        [&server, id = client.id](const cp_answer& answer) {
            cp_control_client* asker = control_find_client(server, id);
            if (asker == nullptr) {
                return;
            }
            if (answer.status != "OK") {
                control_refuse(*asker, fmt::format("no list: {}", control_answer_text(answer)));
                return;
            }
            json names = json::array();
            for (size_t at = 0, end; (end = answer.data.find('\n', at)) != std::string::npos; at = end + 1) {
                names.push_back(answer.data.substr(at, end - at));
            }
            control_finish(*asker, {{"ok", true}, {"names", names}});
        });
    if (!sent) {
        control_refuse(client, cp_find_agent(&server, place.agent) == nullptr
                                   ? control_no_agent_text(server, place.agent)
                                   : "the mask is longer than 255 bytes");
    }
}
