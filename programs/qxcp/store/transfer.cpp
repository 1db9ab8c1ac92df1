#include "transfer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "qxcp/hex.h"
#include "qxcp/message_text.h"

using nlohmann::json;

namespace {

constexpr std::array<const char*, 7> state_names = {"ordered",   "running", "finished", "failed",
                                                    "cancelled", "refused", "lost"};

json place_to_journal(const cp_transfer_place& place) {
    return {{"agent", place.agent},
            {"path", cp_to_hex(place.path)},
            {"user", place.user},
            {"attributes", place.attributes}};
}

cp_transfer_place place_from_journal(const json& j) {
    cp_transfer_place place;
    place.agent = j.value("agent", "");
    place.path = cp_from_hex(j.value("path", "")).value_or("");
    place.user = j.value("user", "");
    place.attributes = j.value("attributes", "");
    return place;
}

json figures_to_json(const cp_transfer_figures& figures) {
    return {{"files_total", figures.files_total},
            {"files_sent", figures.files_sent},
            {"files_successful", figures.files_successful},
            {"dirs_total", figures.dirs_total},
            {"dirs_sent", figures.dirs_sent},
            {"dirs_successful", figures.dirs_successful},
            {"file_size", figures.file_size},
            {"sent_size", figures.sent_size},
            {"compressed_size", figures.compressed_size},
            {"datastream_size", figures.datastream_size},
            {"records", figures.records},
            {"count", figures.count}};
}

cp_transfer_figures figures_from_json(const json& j) {
    cp_transfer_figures figures;
    figures.files_total = j.value("files_total", 0);
    figures.files_sent = j.value("files_sent", 0);
    figures.files_successful = j.value("files_successful", 0);
    figures.dirs_total = j.value("dirs_total", 0);
    figures.dirs_sent = j.value("dirs_sent", 0);
    figures.dirs_successful = j.value("dirs_successful", 0);
    figures.file_size = j.value("file_size", int64_t{0});
    figures.sent_size = j.value("sent_size", int64_t{0});
    figures.compressed_size = j.value("compressed_size", int64_t{0});
    figures.datastream_size = j.value("datastream_size", int64_t{0});
    figures.records = j.value("records", int64_t{0});
    figures.count = j.value("count", 0);
    return figures;
}

json order_to_json(const cp_transfer& transfer) {
    return {{"run", transfer.run},
            {"origin", transfer.origin},
            {"client", transfer.client},
            {"text", transfer.text},
            {"wildcard", transfer.wildcard},
            {"subfolders", transfer.subfolders},
            {"erase", transfer.erase},
            {"abort_on_error", transfer.abort_on_error},
            {"reverse", transfer.reverse},
            {"legacy", transfer.legacy},
            {"compress", std::string(1, transfer.compress)},
            {"overwrite", std::string(1, transfer.overwrite)},
            {"coding", transfer.coding},
            {"start_time", transfer.start_time},
            {"end_time", transfer.end_time}};
}

void order_from_json(const json& j, cp_transfer& transfer) {
    transfer.run = j.value("run", 0);
    transfer.origin = j.value("origin", 0);
    transfer.client = j.value("client", transfer.client);
    transfer.text = j.value("text", false);
    transfer.wildcard = j.value("wildcard", false);
    transfer.subfolders = j.value("subfolders", false);
    transfer.erase = j.value("erase", false);
    transfer.abort_on_error = j.value("abort_on_error", false);
    transfer.reverse = j.value("reverse", false);
    transfer.legacy = j.value("legacy", false);
    transfer.compress = j.value("compress", "0").append("0")[0];
    transfer.overwrite = j.value("overwrite", "N").append("N")[0];
    transfer.coding = j.value("coding", "");
    transfer.start_time = j.value("start_time", "");
    transfer.end_time = j.value("end_time", "");
}

}  // namespace

const char* cp_transfer_state_name(cp_transfer_state state) {
    return state_names[static_cast<size_t>(state)];
}

bool cp_transfer_is_over(cp_transfer_state state) {
    return state >= cp_transfer_state::finished;
}

json cp_transfer_to_journal(const cp_transfer& transfer) {
    json j = order_to_json(transfer);
    j.update({{"source", place_to_journal(transfer.source)},
              {"destination", place_to_journal(transfer.destination)},
              {"user_id", transfer.user_id},
              {"window", {transfer.window_min, transfer.window_max, transfer.window_num}},
              {"state", cp_transfer_state_name(transfer.state)},
              {"figures", figures_to_json(transfer.figures)},
              {"message_number", transfer.message_number},
              {"message_insert", transfer.message_insert},
              {"cancel_ordered", transfer.cancel_ordered},
              {"last_line", transfer.last_line},
              {"report_complete", transfer.report_complete},
              {"forgotten", transfer.forgotten},
              {"resume_known", transfer.resume_known},
              {"restart_data", cp_to_hex(transfer.restart_data)}});
    return j;
}

cp_transfer cp_transfer_from_journal(const json& j) {
    cp_transfer transfer;
    order_from_json(j, transfer);
    transfer.source = place_from_journal(j.value("source", json::object()));
    transfer.destination = place_from_journal(j.value("destination", json::object()));
    transfer.user_id = j.value("user_id", 1u);
    if (const json window = j.value("window", json::array()); window.size() == 3) {
        transfer.window_min = window[0].get<int>();
        transfer.window_max = window[1].get<int>();
        transfer.window_num = window[2].get<int>();
    }
    const std::string state = j.value("state", "lost");
    const auto found = std::find(state_names.begin(), state_names.end(), state);
    transfer.state = found == state_names.end() ? cp_transfer_state::lost
                                                : static_cast<cp_transfer_state>(found - state_names.begin());
    transfer.figures = figures_from_json(j.value("figures", json::object()));
    transfer.message_number = j.value("message_number", 0);
    transfer.message_insert = j.value("message_insert", "");
    transfer.cancel_ordered = j.value("cancel_ordered", false);
    transfer.last_line = j.value("last_line", 0);
    transfer.report_complete = j.value("report_complete", false);
    transfer.forgotten = j.value("forgotten", false);
    transfer.resume_known = j.value("resume_known", false);
    transfer.restart_data = cp_from_hex(j.value("restart_data", "")).value_or("");
    return transfer;
}

json cp_transfer_json(const cp_transfer& transfer) {
    json j = order_to_json(transfer);
    j.update({{"source", transfer.source.agent + ":" + transfer.source.path},
              {"destination", transfer.destination.agent + ":" + transfer.destination.path},
              {"source_user", transfer.source.user},
              {"destination_user", transfer.destination.user},
              {"state", cp_transfer_state_name(transfer.state)},
              {"cancelling", transfer.cancel_ordered && !cp_transfer_is_over(transfer.state)},
              {"report_complete", transfer.report_complete}});
    j.update(figures_to_json(transfer.figures));
    if (transfer.message_number != 0) {
        j["message_number"] = transfer.message_number;
        j["message"] = cp_message_text(transfer.message_number, transfer.message_insert);
    }
    return j;
}

std::vector<cp_report_line> cp_transfer_take_block(cp_transfer& transfer, cp_report_block block) {
    std::vector<cp_report_line> fresh;
    // The agent numbers its lines without gaps. A block may come twice, or again with more lines, when the
    // server that asked for it was replaced meanwhile.
    int id = block.last_id - static_cast<int>(block.lines.size());
    for (cp_report_line& line : block.lines) {
        line.id = ++id;
        if (line.id > transfer.last_line) {
            fresh.push_back(std::move(line));
        }
    }
    transfer.last_line = std::max(transfer.last_line, block.last_id);
    transfer.report_complete = transfer.report_complete || block.status == 'E';
    return fresh;
}

std::string cp_report_line_text(const cp_report_line& line) {
    return fmt::format("{} {}", line.time, cp_message_text(std::max(line.number, 0), line.insert));
}
