// The console's side of the server: a socket in the data folder, one JSON object a line both ways.
#include "control.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/time.h"

using nlohmann::json;

namespace {

constexpr size_t line_limit = size_t{256} << 20;

void run_job(cp_server& server, cp_control_client& client, const json& request) {
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

void ask_agent(cp_server& server, cp_control_client& client, int run, bool cancel) {
    if (cp_find_job(&server, run) == nullptr) {
        control_refuse(client, fmt::format("there is no job {}: see 'qxcp jobs'", run));
        return;
    }
    const int id = client.id;
    auto handler = [&server, id, run, cancel](const cp_answer& answer) {
        cp_control_client* asker = control_find_client(server, id);
        const cp_job* job = cp_find_job(&server, run);
        if (asker == nullptr || job == nullptr) {
            return;
        }
        const std::string text = control_answer_text(answer);
        if (cancel && answer.status != "OK") {
            control_refuse(*asker, fmt::format("job {} was not cancelled: {}", run, text));
            return;
        }
        control_finish(*asker, {{"ok", true},
                        {"text", cancel ? fmt::format("job {} is being cancelled: {}", run, text) : text},
                        {"job", cp_job_json(*job)}});
    };
    const bool sent = cancel ? cp_cancel(&server, run, handler) : cp_job_info(&server, run, handler);
    if (!sent && cancel) {
        control_refuse(client, fmt::format("the agent of job {} is not logged on", run));
    } else if (!sent) {
        control_finish(client, {{"ok", true}, {"text", "the agent is not logged on"}, {"job", cp_job_json(*cp_find_job(&server, run))}});
    }
}

void get_report(cp_server& server, cp_control_client& client, const json& request) {
    const int run = request.value("run", 0);
    const cp_job* job = cp_find_job(&server, run);
    if (job == nullptr) {
        control_refuse(client, fmt::format("there is no job {}: see 'qxcp jobs'", run));
        return;
    }
    cp_report_wish wish;
    wish.match = request.value("match", "");
    wish.tail = request.value("tail", false);
    if (wish.match.empty() && !wish.tail && !job->report_copy.empty()) {
        control_finish(client, {{"ok", true}, {"path", job->report_copy}});
        return;
    }
    wish.path = fmt::format("{}/reports/{:07}.part.txt", server.store.folder, run);
    for (const auto& [id, transfer] : server.transfers) {
        if (transfer.wish.path == wish.path) {
            control_refuse(client, fmt::format("a part of the report of job {} is being fetched: try again", run));
            return;
        }
    }
    const int id = client.id;
    const bool sent = cp_fetch_report(&server, run, wish, [&server, id, run, path = wish.path](const cp_answer& answer) {
        cp_control_client* asker = control_find_client(server, id);
        if (asker == nullptr) {
            return;
        }
        if (answer.status == "OK") {
            control_finish(*asker, {{"ok", true}, {"path", path}});
        } else {
            control_refuse(*asker, fmt::format("no report of job {}: {}", run, control_answer_text(answer)));
        }
    });
    if (!sent) {
        control_refuse(client, fmt::format("the agent of job {} is not logged on", run));
    }
}

void list_agents(cp_server& server, cp_control_client& client, const json&) {
    json list = json::array();
    for (auto& agent : server.agents) {
        if (agent->logged_on) {
            list.push_back(cp_agent_json(*agent));
        }
    }
    control_finish(client, {{"ok", true}, {"agents", list}});
}

void list_jobs(cp_server& server, cp_control_client& client, const json&) {
    json list = json::array();
    for (auto& [run, job] : server.store.jobs) {
        list.push_back(cp_job_json(job));
    }
    control_finish(client, {{"ok", true}, {"jobs", list}});
}

void cancel_job(cp_server& server, cp_control_client& client, const json& request) {
    ask_agent(server, client, request.value("run", 0), true);
}

void tell_of_job(cp_server& server, cp_control_client& client, const json& request) {
    ask_agent(server, client, request.value("run", 0), false);
}

void stop_agent(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    if (cp_stop_agent(&server, agent)) {
        control_finish(client, {{"ok", true}, {"text", fmt::format("agent {} was told to stop", agent)}});
    } else {
        control_refuse(client, fmt::format("agent '{}' is not logged on: see 'qxcp agents'", agent));
    }
}

constexpr int answer_limit = 60;  // seconds; far more than an agent takes for what it answers at once

struct control_row {
    const char* op;
    control_handler handler;
    int silence_limit = 0;  // seconds, 0: the answer may take any time
};

constexpr control_row control_rows[] = {
    {"query", control_query, answer_limit},
    {"trace", control_trace, answer_limit},
    {"log", control_log, answer_limit},
    {"mail", control_mail},
    {"connect", control_connect},
    {"run", run_job},
    {"agents", list_agents},
    {"jobs", list_jobs},
    {"cancel", cancel_job},
    {"info", tell_of_job},
    {"report", get_report},
    {"stop", stop_agent},
    {"exec", cp_control_exec},
    {"cat", cp_control_cat, answer_limit},
    {"shell", cp_control_shell, answer_limit},
    {"exec_cancel", cp_control_exec_cancel},
    {"resource_add", cp_control_resource_add},
    {"resource_list", cp_control_resource_list},
};

void handle_request(cp_server& server, cp_control_client& client, const std::string& line) {
    json request = json::parse(line, nullptr, false);
    if (!request.is_object()) {
        control_refuse(client, "the request is no JSON object");
        return;
    }
    try {  // the library reports a value of a wrong type by an exception
        const std::string op = request.value("op", "");
        for (const control_row& row : control_rows) {
            if (op == row.op) {
                client.silence_limit = std::max(request.value("time_limit", row.silence_limit), 0);
                client.last_sign = alarm_now();
                row.handler(server, client, request);
                return;
            }
        }
        control_refuse(client, fmt::format("unknown request '{}'", op));
    } catch (const json::exception& fault) {
        control_refuse(client, fault.what());
    }
}

}  // namespace

void control_tell(cp_control_client& client, const json& line) {
    client.out += line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

void control_finish(cp_control_client& client, const json& answer) {
    control_tell(client, answer);
    client.close_when_written = true;
}

void control_refuse(cp_control_client& client, const std::string& text) {
    control_finish(client, {{"ok", false}, {"error", text}});
}

cp_control_client* control_find_client(cp_server& server, int id) {
    for (auto& client : server.clients) {
        // One that has its answer waits for no other.
        if (client->id == id && client->fd >= 0 && !client->close_when_written) {
            return client.get();
        }
    }
    return nullptr;
}

std::string control_answer_text(const cp_answer& answer) {
    if (answer.status == "--") {
        return "the connection to the agent was lost";
    }
    return answer.number == 0 ? std::string{answer.status}
                              : fmt::format("{} U{:08} {}", answer.status, answer.number, answer.insert);
}

bool cp_control_open(cp_server& server, std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = server.store.folder + "/control.sock";
    if (path.size() >= sizeof address.sun_path) {
        error = fmt::format("the path '{}' is too long for a socket: choose a shorter folder", path);
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool alive = probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (probe >= 0) {
        close(probe);
    }
    if (alive) {
        error = fmt::format("another server uses the folder '{}'", server.store.folder);
        return false;
    }
    unlink(path.c_str());  // left by a server that was killed
    server.control_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (server.control_fd < 0 || bind(server.control_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(server.control_fd, 16) != 0) {
        error = fmt::format("cannot open '{}': {}", path, std::strerror(errno));
        return false;
    }
    return true;
}

void cp_control_accept(cp_server& server) {
    const int fd = accept4(server.control_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        return;  // gone again, or descriptors are short: the next step tries once more
    }
    auto client = std::make_unique<cp_control_client>();
    client->id = server.next_id++;
    client->fd = fd;
    server.clients.push_back(std::move(client));
}

void cp_control_read(cp_server& server, cp_control_client& client) {
    char chunk[65536];
    const ssize_t n = recv(client.fd, chunk, sizeof chunk, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n <= 0 || client.in.size() > line_limit) {
        close(client.fd);
        client.fd = -1;
        return;
    }
    client.in.append(chunk, static_cast<size_t>(n));
    for (size_t end; (end = client.in.find('\n')) != std::string::npos;) {
        const std::string line = client.in.substr(0, end);
        client.in.erase(0, end + 1);
        handle_request(server, client, line);
    }
}

void cp_control_end_silent(cp_server& server) {
    const time_t now = alarm_now();
    for (auto& client : server.clients) {
        if (client->silence_limit > 0 && !client->close_when_written &&
            now - client->last_sign > client->silence_limit) {
            control_refuse(*client,
                           fmt::format("the agent sent nothing for {} seconds", client->silence_limit));
        }
    }
}

void cp_control_tell_log(cp_server& server, const std::string& agent, const std::string& lines) {
    for (auto& client : server.clients) {
        if (client->watched_log == agent) {
            control_tell(*client, {{"lines", lines}});
        }
    }
}

void cp_control_tell_job(cp_server& server, const cp_job& job) {
    for (auto& client : server.clients) {
        if (client->watched_run != job.run) {
            continue;
        }
        const std::string told = fmt::format("{}|{}|{}", cp_state_name(job.state), job.process_id, job.info_text);
        if (told != client->last_told) {
            client->last_told = told;
            control_tell(*client, {{"job", cp_job_json(job)}});
        }
        // With the report fetched (or none to come) the job is over for its submitter.
        if (cp_state_is_final(job.state) && (job.forgotten || !server.options.fetch_reports)) {
            client->watched_run = 0;
            control_finish(*client, {{"ok", true}, {"job", cp_job_json(job)}});
        }
    }
}

json cp_agent_json(const cp_agent& agent) {
    return {{"name", agent.link.agent},   {"address", agent.listener}, {"port", agent.listener_port},
            {"version", agent.version},   {"platform", agent.platform}, {"since", agent.since},
            {"start", std::string(1, agent.start_type)}, {"variables", agent.variables}};
}
