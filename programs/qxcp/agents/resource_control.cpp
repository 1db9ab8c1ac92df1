// Resources at the server: the table that an activation carries, and the answer to an agent that asks.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "agent_messages.h"
#include "messages/records_job.h"
#include "messages/records_report.h"
#include "messages/timestamp.h"
#include "qxcp/control/control.h"
#include "qxcp/store/resources.h"

using nlohmann::json;

namespace {

std::string task_path(const std::string& cache, const cp_job& job) {
    return fmt::format("{}tasks/{:04}/{:07}/", cache, job.client, job.run);
}

std::string client_path(const std::string& cache, const cp_job& job) {
    return fmt::format("{}clients/{:04}/", cache, job.client);
}

// Jobs that wait for what is not there would wait for ever: the agent asks once for all that share it.
void cancel_waiting_jobs(cp_server& server, const std::string& agent, int client, const std::string& object,
                         const std::string& name) {
    std::vector<int> runs;
    for (const auto& [run, job] : server.store.jobs) {
        const bool wants = std::any_of(
            job.resources.begin(), job.resources.end(),
            [&](const cp_job_resource& wanted) { return wanted.object == object && wanted.name == name; });
        if (wants && job.agent == agent && job.client == client && job.state == cp_job_state::submitted) {
            runs.push_back(run);
        }
    }
    for (const int run : runs) {
        cp_emit(server, "resource", agent, run,
                fmt::format("agent {} asks for resource {}:{}/{}, which is not here: job {} is cancelled",
                            agent, client, object, name, run));
        cp_cancel(&server, run, {});
    }
}

json resource_json(const cp_resource& resource) {
    const MSG_TYPE_TIMESTAMP stamp = timestamp_utc(resource.modified);
    return {{"client", resource.client},
            {"object", resource.object},
            {"name", resource.name},
            {"type", resource.text ? "text" : "binary"},
            {"size", resource.size},
            {"modified", fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", stamp.jjjj, stamp.mo, stamp.tt,
                                     stamp.hh, stamp.mi, stamp.ss)}};
}

}  // namespace

std::string cp_check_resources(const cp_server& server, const cp_job& job) {
    for (const cp_job_resource& wanted : job.resources) {
        if (cp_resource_find(server.store, job.client, wanted.object, wanted.name) == nullptr) {
            return fmt::format("client {} has no resource '{}/{}': add it with 'qxcp resource add'",
                               job.client, wanted.object, wanted.name);
        }
    }
    return {};
}

void cp_append_resources(const cp_server& server, const cp_job& job, const std::string& cache,
                         message_builder<MSG_TYPE_EXAKTJ>& order) {
    if (job.resources.empty()) {
        return;
    }
    MSG_TYPE_BINPATHS paths{};
    put_text(paths.task_cache_path, task_path(cache, job));
    put_text(paths.client_cache_path, client_path(cache, job));
    order.begin_table(MSG_TYPE_EXAKTJ::bintab, job.resources.size());
    for (const cp_job_resource& wanted : job.resources) {
        const cp_resource* resource = cp_resource_find(server.store, job.client, wanted.object, wanted.name);
        MSG_TYPE_BINTAB row{};
        put_text(row.object_name, wanted.object);
        put_text(row.resource_name, wanted.name);
        put_text(row.file_name, wanted.name);
        row.mod_date = timestamp_utc(resource == nullptr ? 0 : resource->modified);
        row.cache_type = wanted.kind;
        order.put_record(row);
    }
    order.begin_table(MSG_TYPE_EXAKTJ::binpaths, 1);
    order.put_record(paths);
}

// A script finds its files by two variables. The shells of the C family set them in their own way.
std::string cp_resource_lines(const cp_job& job, const std::string& cache, const std::string& shell) {
    if (job.resources.empty()) {
        return {};
    }
    const bool c_family = shell == "csh" || shell == "tcsh" || shell == "-csh" || shell == "-tcsh";
    const char* form =
        c_family ? "setenv QX_CLIENT_CACHE '{}'\nsetenv QX_TASK_CACHE '{}'\n"
                 : "QX_CLIENT_CACHE='{}' QX_TASK_CACHE='{}'\nexport QX_CLIENT_CACHE QX_TASK_CACHE\n";
    return fmt::format(fmt::runtime(form), client_path(cache, job), task_path(cache, job));
}

void cp_take_resource_request(cp_server& server, cp_agent& agent, message_view view,
                              const frame_address& from) {
    auto question = view_record<MSG_TYPE_BIN_GET>(view);
    const std::string object{get_text(question.name)};
    const std::string name{get_text(question.subname)};
    const int client = question.header.i2Mandant;
    const cp_resource* resource = cp_resource_find(server.store, client, object, name);
    const auto content = resource == nullptr ? std::nullopt : cp_resource_content(server.store, *resource);
    if (!content) {
        cancel_waiting_jobs(server, agent.link.agent, client, object, name);
        return;
    }
    message_builder<MSG_TYPE_BIN_DATA> answer(question.header.i2Mandant, question.header.i4UsrIdNr);
    put_text(answer->type, resource->text ? "TEXT" : "BINARY");
    put_text(answer->name, name);
    put_text(answer->object_name, object);
    answer->timestamp = timestamp_utc(resource->modified);
    answer->ah_idnr = question.ah_idnr;
    answer->file_type = resource->text ? 'T' : 'B';
    answer.add(MSG_TYPE_BIN_DATA::content, *content);
    cp_emit(server, "resource", agent.link.agent, question.ah_idnr,
            fmt::format("resource {}:{}/{} sent to agent {} for job {}", client, object, name,
                        agent.link.agent, question.ah_idnr));
    const std::string module = from.src_name[0] != '\0' ? from.src_name : "BINDATA";
    cp_send(&server, agent, module, answer);
}

void cp_control_resource_add(cp_server& server, cp_control_client& client, const json& request) {
    cp_resource resource;
    const int number = request.value("client", int{resource.client});
    if (number < 0 || number > 9999) {
        control_refuse(client, "a client is a number from 0 to 9999");
        return;
    }
    resource.client = static_cast<uint16_t>(number);
    resource.object = request.value("object", "");
    resource.name = request.value("name", "");
    resource.text = request.value("text", false);
    if (std::string fault = cp_resource_add(server.store, resource, request.value("path", ""));
        !fault.empty()) {
        control_refuse(client, fault);
        return;
    }
    const cp_resource* added =
        cp_resource_find(server.store, resource.client, resource.object, resource.name);
    control_finish(client, {{"ok", true},
                            {"text", fmt::format("resource {}:{}/{} stored, {} bytes", added->client,
                                                 added->object, added->name, added->size)},
                            {"resource", resource_json(*added)}});
}

void cp_control_resource_list(cp_server& server, cp_control_client& client, const json&) {
    json list = json::array();
    for (const cp_resource& resource : server.store.resources) {
        list.push_back(resource_json(resource));
    }
    control_finish(client, {{"ok", true}, {"resources", list}});
}
