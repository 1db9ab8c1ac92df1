#include "store.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "qxcp/hex.h"
#include "qxcp/message_text.h"
#include "resources.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr std::array<const char*, 10> state_names = {"waiting",   "submitted", "activated", "running",
                                                     "cancelled", "ended",     "vanished",  "refused",
                                                     "lost",      "withdrawn"};

cp_job_state state_from_name(const std::string& name) {
    for (size_t i = 0; i < state_names.size(); ++i) {
        if (name == state_names[i]) {
            return static_cast<cp_job_state>(i);
        }
    }
    return cp_job_state::lost;
}

std::string append_line(const cp_store& store, const json& line) {
    const std::string text = line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    if (store.journal == nullptr || std::fwrite(text.data(), 1, text.size(), store.journal) != text.size() ||
        std::fflush(store.journal) != 0) {
        return fmt::format("cannot write '{}/journal.jsonl': {}", store.folder, std::strerror(errno));
    }
    return {};
}

json job_facts(const cp_job& job) {
    return {{"run", job.run},
            {"name", job.name},
            {"client", job.client},
            {"agent", job.agent},
            {"user", job.user},
            {"shell", job.shell},
            {"process_id", job.process_id},
            {"program", job.program},
            {"info_text", job.info_text},
            {"start_time", job.start_time},
            {"end_time", job.end_time},
            {"cpu_ms", job.cpu_ms},
            {"io_count", job.io_count},
            {"cancelled", job.cancelled},
            {"status_count", job.status_count},
            {"message_number", job.message_number},
            {"message_insert", job.message_insert},
            {"variables", job.variables},
            {"output_files", job.output_files},
            {"job_file", job.job_file},
            {"report_file", job.report_file},
            {"report_copy", job.report_copy}};
}

// With what only the server needs.
json job_to_json(const cp_job& job) {
    json j = job_facts(job);
    j.update({{"state", cp_state_name(job.state)},
              {"return_code", job.return_code},
              {"user_id", job.user_id},
              {"end_count", job.end_count},
              {"restart_record", cp_to_hex(job.restart_record)},
              {"forgotten", job.forgotten},
              {"wrap", job.wrap}});
    if (job.state == cp_job_state::waiting) {
        j["script"] = job.script;
        j["resources"] = json::array();
        for (const cp_job_resource& resource : job.resources) {
            j["resources"].push_back({{"object", resource.object},
                                      {"name", resource.name},
                                      {"kind", std::string(1, resource.kind)}});
        }
    }
    return j;
}

cp_job job_from_json(const json& j) {
    cp_job job;
    job.run = j.value("run", 0);
    job.client = j.value("client", job.client);
    job.user_id = j.value("user_id", 1u);
    job.name = j.value("name", "");
    job.agent = j.value("agent", "");
    job.user = j.value("user", "");
    job.shell = j.value("shell", "");
    job.job_file = j.value("job_file", "");
    job.report_file = j.value("report_file", "");
    job.state = state_from_name(j.value("state", "lost"));
    job.return_code = j.value("return_code", 0);
    job.process_id = j.value("process_id", "");
    job.info_text = j.value("info_text", "");
    job.program = j.value("program", "");
    job.start_time = j.value("start_time", "");
    job.end_time = j.value("end_time", "");
    job.cpu_ms = j.value("cpu_ms", 0);
    job.io_count = j.value("io_count", 0);
    job.cancelled = j.value("cancelled", false);
    job.status_count = j.value("status_count", 0);
    job.end_count = j.value("end_count", 0);
    job.message_number = j.value("message_number", 0);
    job.message_insert = j.value("message_insert", "");
    job.restart_record = cp_from_hex(j.value("restart_record", "")).value_or("");
    job.variables = j.value("variables", std::map<std::string, std::string>{});
    job.output_files = j.value("output_files", std::vector<std::string>{});
    job.report_copy = j.value("report_copy", "");
    job.forgotten = j.value("forgotten", false);
    job.wrap = j.value("wrap", true);
    job.script = j.value("script", "");
    for (const json& resource : j.value("resources", json::array())) {
        job.resources.push_back(
            {resource.value("object", ""), resource.value("name", ""), resource.value("kind", "C")[0]});
    }
    return job;
}

// Reads the journal, writes it anew with one line for each job, and opens it for more.
std::string open_journal(cp_store& store) {
    const std::string path = store.folder + "/journal.jsonl";
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        json j = json::parse(line, nullptr, false);
        if (!j.is_object()) {
            continue;  // the last line of a server that was killed
        }
        if (j.contains("next_run")) {
            store.next_run = std::max(store.next_run, j.value("next_run", 1));
            store.next_report_id = std::max(store.next_report_id, j.value("next_report_id", 1));
            continue;
        }
        if (j.contains("transfer")) {
            cp_transfer transfer = cp_transfer_from_journal(j["transfer"]);
            store.next_run = std::max(store.next_run, transfer.run + 1);
            store.transfers[transfer.run] = std::move(transfer);
            continue;
        }
        cp_job job = job_from_json(j);
        store.next_run = std::max(store.next_run, job.run + 1);
        store.jobs[job.run] = std::move(job);
    }
    for (auto& [run, transfer] : store.transfers) {
        // The server may have been killed between the line and its number.
        if (!transfer.forgotten) {
            const std::vector<cp_report_line> lines = cp_store_lines(store, run);
            transfer.last_line = std::max(transfer.last_line, lines.empty() ? 0 : lines.back().id);
        }
    }
    const std::string compact = path + ".tmp";
    store.journal = std::fopen(compact.c_str(), "we");
    std::string fault = cp_store_save_numbers(store);
    for (auto& [run, job] : store.jobs) {
        fault = fault.empty() ? cp_store_save_job(store, job) : fault;
    }
    for (auto& [run, transfer] : store.transfers) {
        fault = fault.empty() ? cp_store_save_transfer(store, transfer) : fault;
    }
    if (fault.empty() && rename(compact.c_str(), path.c_str()) != 0) {
        fault = fmt::format("cannot rename '{}': {}", compact, std::strerror(errno));
    }
    return fault;
}

// Copies for consoles of a server that was killed.
void remove_parts(const std::string& folder) {
    std::error_code error;
    std::vector<fs::path> parts;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().extension() == ".part") {
            parts.push_back(entry.path());
        }
    }
    for (const fs::path& part : parts) {
        fs::remove(part, error);  // what stays is overwritten by the next one of its name
    }
}

}  // namespace

const char* cp_shown_state(const cp_job& job) {
    if (job.state == cp_job_state::withdrawn || (job.state == cp_job_state::vanished && job.cancelled)) {
        return "cancelled";
    }
    return job.state == cp_job_state::cancelled ? "cancelling" : cp_state_name(job.state);
}

const std::vector<std::string>& cp_shown_states() {
    static const std::vector<std::string> names = {"waiting",    "submitted", "activated", "running",
                                                   "cancelling", "ended",     "cancelled", "vanished",
                                                   "refused",    "lost"};
    return names;
}

json cp_job_json(const cp_job& job) {
    json j = job_facts(job);
    j["state"] = cp_shown_state(job);
    if (job.state == cp_job_state::ended || (job.state == cp_job_state::vanished && !job.cancelled)) {
        j["return_code"] = job.return_code;
    } else if (job.state == cp_job_state::vanished) {
        j["signal"] = job.return_code;
    }
    if (job.message_number != 0) {
        j["message"] = cp_message_text(job.message_number, job.message_insert);
    }
    return j;
}

cp_store::~cp_store() {
    if (journal != nullptr) {
        std::fclose(journal);
    }
}

const char* cp_state_name(cp_job_state state) {
    return state_names[static_cast<size_t>(state)];
}

bool cp_state_is_final(cp_job_state state) {
    return state >= cp_job_state::ended;
}

std::string cp_store_open(cp_store& store, const std::string& folder) {
    store.folder = folder;
    std::error_code error;
    for (const char* part : {"", "/reports", "/agents", "/resources"}) {
        fs::create_directories(folder + part, error);
        if (error) {
            return fmt::format("cannot make the folder '{}{}': {}", folder, part, error.message());
        }
    }
    fs::permissions(folder, fs::perms::owner_all, error);  // it holds keys
    if (error) {
        return fmt::format("cannot protect the folder '{}': {}", folder, error.message());
    }
    remove_parts(folder + "/reports");
    if (std::string fault = cp_resources_open(store); !fault.empty()) {
        return fault;
    }
    return open_journal(store);
}

std::string cp_store_save_job(const cp_store& store, const cp_job& job) {
    return append_line(store, job_to_json(job));
}

std::string cp_store_save_transfer(const cp_store& store, const cp_transfer& transfer) {
    return append_line(store, {{"transfer", cp_transfer_to_journal(transfer)}});
}

std::string cp_store_save_numbers(const cp_store& store) {
    return append_line(store, {{"next_run", store.next_run}, {"next_report_id", store.next_report_id}});
}

std::string cp_store_report_path(const cp_store& store, int run) {
    return fmt::format("{}/reports/{:07}.txt", store.folder, run);
}

namespace {

std::string lines_path(const cp_store& store, int run) {
    return fmt::format("{}/reports/{:07}.jsonl", store.folder, run);
}

}  // namespace

std::string cp_store_add_lines(const cp_store& store, int run, const std::vector<cp_report_line>& lines) {
    const std::string path = lines_path(store, run);
    std::ofstream out(path, std::ios::app | std::ios::binary);
    for (const cp_report_line& line : lines) {
        const json j = {
            {"id", line.id}, {"time", line.time}, {"number", line.number}, {"insert", line.insert}};
        out << j.dump(-1, ' ', false, json::error_handler_t::replace) << "\n";
    }
    out.flush();
    return out ? "" : fmt::format("cannot write '{}': {}", path, std::strerror(errno));
}

std::vector<cp_report_line> cp_store_lines(const cp_store& store, int run) {
    std::vector<cp_report_line> lines;
    std::ifstream in(lines_path(store, run));
    for (std::string text; std::getline(in, text);) {
        const json j = json::parse(text, nullptr, false);
        if (j.is_object()) {  // what a killed server wrote in part is none
            lines.push_back(
                {j.value("id", 0), j.value("time", ""), j.value("number", 0), j.value("insert", "")});
        }
    }
    return lines;
}
