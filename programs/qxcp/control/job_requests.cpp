// The console's requests about jobs.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "control.h"

using nlohmann::json;

namespace {

// Null after a refusal.
cp_job* wanted_job(cp_server& server, cp_control_client& client, const json& request) {
    const int run = request.value("run", 0);
    cp_job* job = cp_find_job(&server, run);
    if (job == nullptr) {
        control_refuse(client, fmt::format("there is no job {}: see 'qxcp jobs'", run));
    }
    return job;
}

std::string agent_is_off(const cp_job& job) {
    return fmt::format("agent {}, which has job {}, is not logged on", job.agent, job.run);
}

// Why a job can never have a report; empty where there may be one.
std::string no_report_text(const cp_job& job) {
    switch (job.state) {
        case cp_job_state::waiting:
            return fmt::format("job {} waits for an agent: it has no report yet", job.run);
        case cp_job_state::withdrawn:
            return fmt::format("job {} never ran: it was cancelled before", job.run);
        case cp_job_state::refused:
            return fmt::format("job {} never ran: {}", job.run, cp_job_json(job).value("message", ""));
        default:
            return {};
    }
}

bool is_over(const cp_job& job) {
    return cp_state_is_final(job.state) && job.state != cp_job_state::lost;
}

size_t count_agents(const cp_server& server) {
    return static_cast<size_t>(std::count_if(server.agents.begin(), server.agents.end(),
                                             [](const auto& agent) { return agent->logged_on; }));
}

}  // namespace

void control_run(cp_server& server, cp_control_client& client, const json& request) {
    cp_job job;
    job.script = request.value("script", "");
    job.name = request.value("name", "");
    job.agent = request.value("agent", "");
    job.user = request.value("user", "");
    job.shell = request.value("shell", "");
    job.password = request.value("password", "");
    job.wrap = request.value("wrap", true);
    if (job.script.empty()) {
        control_refuse(client, "the script is empty");
        return;
    }
    if (job.agent.empty() && count_agents(server) > 1) {
        control_refuse(client, control_no_agent_text(server, "") + " with --agent");
        return;
    }
    const int number = request.value("client", int{job.client});
    if (number < 0 || number > 9999) {
        control_refuse(client, "a client is a number from 0 to 9999");
        return;
    }
    job.client = static_cast<uint16_t>(number);
    for (const json& wanted : request.value("resources", json::array())) {
        job.resources.push_back(
            {wanted.value("object", ""), wanted.value("name", ""), wanted.value("kind", "C")[0]});
    }
    std::string error;
    const int run = cp_submit(&server, std::move(job), error);
    if (run == 0) {
        control_refuse(client, error);
        return;
    }
    client.watched_run = run;
    cp_control_tell_job(server, *cp_find_job(&server, run));
}

void control_jobs(cp_server& server, cp_control_client& client, const json& request) {
    const auto states = request.value("states", std::vector<std::string>());
    const std::string agent = request.value("agent", "");
    const int last = request.value("last", 0);
    std::vector<const cp_job*> wanted;
    for (const auto& [run, job] : server.store.jobs) {
        const bool of_state =
            states.empty() || std::find(states.begin(), states.end(), cp_shown_state(job)) != states.end();
        if (of_state && (agent.empty() || strcasecmp(agent.c_str(), job.agent.c_str()) == 0)) {
            wanted.push_back(&job);
        }
    }
    const size_t skipped =
        last > 0 && wanted.size() > static_cast<size_t>(last) ? wanted.size() - static_cast<size_t>(last) : 0;
    json list = json::array();
    for (size_t i = skipped; i < wanted.size(); ++i) {
        list.push_back(cp_job_json(*wanted[i]));
    }
    control_finish(client, {{"ok", true}, {"jobs", list}});
}

void control_cancel(cp_server& server, cp_control_client& client, const json& request) {
    const cp_job* job = wanted_job(server, client, request);
    if (job == nullptr) {
        return;
    }
    if (is_over(*job)) {
        control_refuse(
            client, fmt::format("job {} was not cancelled: it is over ({})", job->run, cp_shown_state(*job)));
        return;
    }
    const bool sent =
        cp_cancel(&server, job->run, [&server, id = client.id, run = job->run](const cp_answer& answer) {
            cp_control_client* asker = control_find_client(server, id);
            const cp_job* asked = cp_find_job(&server, run);
            if (asker == nullptr || asked == nullptr) {
                return;
            }
            if (answer.status != "OK") {
                control_refuse(*asker,
                               fmt::format("job {} was not cancelled: {}", run, control_answer_text(answer)));
                return;
            }
            const std::string text =
                asked->state == cp_job_state::withdrawn
                    ? fmt::format("job {} is cancelled: it was sent to no agent", run)
                    : fmt::format("job {} is being cancelled: {}", run, control_answer_text(answer));
            control_finish(*asker, {{"ok", true}, {"text", text}, {"job", cp_job_json(*asked)}});
        });
    if (!sent) {
        control_refuse(client,
                       agent_is_off(*job) + ": a job that was sent to it can be cancelled when it is back");
    }
}

void control_info(cp_server& server, cp_control_client& client, const json& request) {
    const cp_job* job = wanted_job(server, client, request);
    if (job == nullptr) {
        return;
    }
    // Of these the agent knows nothing, or nothing any more.
    if (job->forgotten || job->state == cp_job_state::waiting) {
        control_finish(client, {{"ok", true}, {"job", cp_job_json(*job)}});
        return;
    }
    const bool sent =
        cp_job_info(&server, job->run, [&server, id = client.id, run = job->run](const cp_answer& answer) {
            cp_control_client* asker = control_find_client(server, id);
            const cp_job* asked = cp_find_job(&server, run);
            if (asker != nullptr && asked != nullptr) {
                control_finish(
                    *asker,
                    {{"ok", true}, {"text", control_answer_text(answer)}, {"job", cp_job_json(*asked)}});
            }
        });
    if (!sent) {
        control_finish(client, {{"ok", true}, {"text", agent_is_off(*job)}, {"job", cp_job_json(*job)}});
    }
}

void control_report(cp_server& server, cp_control_client& client, const json& request) {
    const cp_job* job = wanted_job(server, client, request);
    if (job == nullptr) {
        return;
    }
    if (std::string why = no_report_text(*job); !why.empty()) {
        control_refuse(client, why);
        return;
    }
    cp_report_wish wish;
    wish.match = request.value("match", "");
    wish.tail = request.value("tail", false);
    if (wish.match.empty() && !wish.tail && !job->report_copy.empty()) {
        control_finish(client, {{"ok", true}, {"path", job->report_copy}});
        return;
    }
    wish.path = control_copy_path(server, client);
    client.watched_report = job->run;
    auto told = [&server, id = client.id, run = job->run, path = wish.path](const cp_answer& answer) {
        cp_control_client* asker = control_find_client(server, id);
        if (asker == nullptr) {
            unlink(path.c_str());  // where the report was refused it is gone already
        } else if (answer.status == "OK") {
            control_finish(*asker, {{"ok", true}, {"path", path}, {"remove", true}});
        } else {
            control_refuse(*asker, fmt::format("no report of job {}: {}", run, control_answer_text(answer)));
        }
    };
    if (!cp_fetch_report(&server, job->run, wish, told)) {
        control_refuse(client, cp_find_agent(&server, job->agent) == nullptr
                                   ? agent_is_off(*job)
                                   : fmt::format("'{}' cannot be written", wish.path));
    }
}
