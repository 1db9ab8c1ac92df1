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
#include "qxcp/message_text.h"

using nlohmann::json;

namespace {

constexpr size_t line_limit = size_t{256} << 20;

void list_agents(cp_server& server, cp_control_client& client, const json&) {
    json list = json::array();
    for (auto& agent : server.agents) {
        if (agent->logged_on) {
            list.push_back(cp_agent_json(*agent));
        }
    }
    control_finish(client, {{"ok", true}, {"agents", list}});
}

void stop_agent(cp_server& server, cp_control_client& client, const json& request) {
    const std::string agent = request.value("agent", "");
    if (cp_stop_agent(&server, agent)) {
        control_finish(client, {{"ok", true}, {"text", fmt::format("agent {} was told to stop", agent)}});
    } else {
        control_refuse(client, control_no_agent_text(server, agent));
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
    {"run", control_run},
    {"agents", list_agents},
    {"package", control_package},
    {"forget_key", control_forget_key},
    {"jobs", control_jobs},
    {"cancel", control_cancel},
    {"info", control_info},
    {"report", control_report},
    {"stop", stop_agent},
    {"exec", cp_control_exec},
    {"cat", cp_control_cat, answer_limit},
    {"shell", cp_control_shell, answer_limit},
    {"exec_cancel", cp_control_exec_cancel},
    {"resource_add", cp_control_resource_add},
    {"resource_list", cp_control_resource_list},
    {"transfer", control_transfer},
    {"transfers", control_transfers},
    {"transfer_report", control_transfer_report},
    {"transfer_watch", control_transfer_watch},
    {"transfer_cancel", control_transfer_cancel},
    {"dir", control_dir, answer_limit},
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
    const std::string text = cp_message_text(answer.number, answer.insert);
    if (!text.empty()) {
        return text;
    }
    return answer.status == "OK" ? "the agent says yes" : "the agent says no, and gives no reason";
}

std::string control_no_agent_text(const cp_server& server, const std::string& agent) {
    std::string names;
    for (const auto& other : server.agents) {
        if (other->logged_on) {
            names += (names.empty() ? "" : ", ") + other->link.agent;
        }
    }
    if (names.empty()) {
        return agent.empty() ? "no agent is logged on"
                             : fmt::format("agent '{}' is not logged on, nor is any other", agent);
    }
    return agent.empty() ? fmt::format("several agents are logged on, name one of them: {}", names)
                         : fmt::format("agent '{}' is not logged on; these are: {}", agent, names);
}

std::string control_copy_path(const cp_server& server, const cp_control_client& client) {
    return fmt::format("{}/reports/console-{}.part", server.store.folder, client.id);
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
    const bool alive =
        probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (probe >= 0) {
        close(probe);
    }
    if (alive) {
        error = fmt::format("another server uses the folder '{}'", server.store.folder);
        return false;
    }
    unlink(path.c_str());  // left by a server that was killed
    server.control_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (server.control_fd < 0 ||
        bind(server.control_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
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

void cp_control_tell_progress(cp_server& server, int run, int64_t bytes) {
    for (auto& client : server.clients) {
        if ((client->watched_run == run || client->watched_report == run) && !client->close_when_written) {
            control_tell(*client, {{"progress", {{"run", run}, {"bytes", bytes}}}});
        }
    }
}

void cp_control_tell_job(cp_server& server, const cp_job& job) {
    for (auto& client : server.clients) {
        if (client->watched_run != job.run) {
            continue;
        }
        const std::string told =
            fmt::format("{}|{}|{}", cp_state_name(job.state), job.process_id, job.info_text);
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
    return {{"name", agent.link.agent},
            {"address", agent.listener},
            {"port", agent.listener_port},
            {"version", agent.version},
            {"platform", agent.platform},
            {"since", agent.since},
            {"start", std::string(1, agent.start_type)},
            {"variables", agent.variables},
            {"key", agent.fingerprint}};
}
