#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include "base/text.h"
#include "qxcp/message_text.h"
#include "server_state.h"

namespace {

constexpr size_t read_size = 262144;
// An agent or a console that takes nothing is dropped beyond this.
constexpr size_t out_limit = size_t{64} << 20;

using clock_type = std::chrono::steady_clock;

int open_listener(const std::string& address, int port, std::string& error) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1) {
        error = fmt::format("'{}' is no IPv4 address", address);
        return -1;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 || listen(fd, 64) != 0) {
        error = fmt::format("cannot listen on {}:{}: {}", address, port, std::strerror(errno));
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

int port_of(int fd) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length) == 0 ? ntohs(name.sin_port) : 0;
}

void accept_agents(cp_server& server) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const int fd =
        accept4(server.listen_fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        return;  // it went away again, or descriptors are short: the next step tries once more
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // a wish; without it answers are only slower
    auto agent = std::make_unique<cp_agent>();
    agent->id = server.next_id++;
    agent->fd = fd;
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
    agent->address = fmt::format("{}:{}", text, ntohs(peer.sin_port));
    cp_link_open(agent->link, server.identity);
    cp_emit(server, "connect", "", 0, fmt::format("connection from {}", agent->address));
    server.agents.push_back(std::move(agent));
}

// A second connection of an agent replaces the first: the agent has lost it before the server noticed.
void end_older_connections(cp_server& server, const cp_agent& agent) {
    for (auto& other : server.agents) {
        if (other->id != agent.id && other->link.agent == agent.link.agent &&
            other->link.state == cp_link_state::sealed) {
            other->link.state = cp_link_state::ended;
            other->link.fault = "the agent has connected anew";
        }
    }
}

void handle_link_event(cp_server& server, cp_agent& agent, cp_link_event event) {
    const std::string& name = agent.link.agent;
    switch (event) {
        case cp_link_event::card:
            cp_emit(server, "card", name, 0,
                    fmt::format("visit card of agent {} from {}", name, agent.address));
            break;
        case cp_link_event::key_agreed:
            cp_emit(server, "key", name, 0,
                    fmt::format("first contact: a transfer key was agreed with agent {}, fingerprint {}",
                                name, key_fingerprint(server.keys, name)));
            break;
        case cp_link_event::sealed:
            end_older_connections(server, agent);
            agent.fingerprint = key_fingerprint(server.keys, name);
            cp_emit(server, "sealed", name, 0, fmt::format("the connection of agent {} is sealed", name));
            break;
        case cp_link_event::message:
            if (!server.tap || !server.tap(agent, agent.link.received)) {
                cp_handle_message(server, agent);
            }
            break;
    }
}

void read_agent(cp_server& server, cp_agent& agent) {
    static thread_local std::string chunk(read_size, '\0');
    const ssize_t n = recv(agent.fd, chunk.data(), chunk.size(), 0);
    // The agent's small messages would wait for a late acknowledgment of the one before; the kernel forgets
    // this wish, so it is told each time.
    const int on = 1;
    setsockopt(agent.fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        if (agent.link.state != cp_link_state::ended) {
            agent.link.state = cp_link_state::ended;
            agent.link.fault = n < 0 ? std::strerror(errno) : "";
        }
        return;
    }
    cp_link_receive(agent.link, server.identity, {chunk.data(), static_cast<size_t>(n)},
                    [&](cp_link&, cp_link_event event) { handle_link_event(server, agent, event); });
}

// Writes what there is. False when the connection is broken.
bool write_out(int fd, std::string& out) {
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = send(fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            break;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    out.erase(0, done);
    return true;
}

void end_agents(cp_server& server) {
    for (size_t i = 0; i < server.agents.size();) {
        cp_agent& agent = *server.agents[i];
        if (agent.link.state != cp_link_state::ended && write_out(agent.fd, agent.link.out) &&
            agent.link.out.size() < out_limit) {
            ++i;
            continue;
        }
        if (agent.link.state != cp_link_state::ended) {
            agent.link.fault = "nothing can be written to it";
        }
        std::unique_ptr<cp_agent> gone = std::move(server.agents[i]);
        server.agents.erase(server.agents.begin() + static_cast<std::ptrdiff_t>(i));
        write_out(gone->fd, gone->link.out);  // a last word, if it is taken
        close(gone->fd);
        gone->fd = -1;
        const std::string name = gone->link.agent.empty() ? gone->address : gone->link.agent;
        cp_emit(server, gone->link.fault.empty() ? "disconnect" : "fault", gone->link.agent, 0,
                gone->link.fault.empty() ? fmt::format("connection of {} closed", name)
                                         : fmt::format("connection of {} ended: {}", name, gone->link.fault));
        cp_handle_lost_line(server, *gone);
    }
}

void end_clients(cp_server& server) {
    std::erase_if(server.clients, [](auto& client) {
        if (client->fd >= 0 && (!write_out(client->fd, client->out) || client->out.size() > out_limit)) {
            close(client->fd);
            client->fd = -1;
        }
        if (client->fd >= 0 && client->close_when_written && client->out.empty()) {
            close(client->fd);
            client->fd = -1;
        }
        return client->fd < 0;
    });
}

}  // namespace

cp_server::~cp_server() {
    for (auto& agent : agents) {
        if (agent->fd >= 0) {
            close(agent->fd);
        }
    }
    for (auto& client : clients) {
        if (client->fd >= 0) {
            close(client->fd);
        }
    }
    for (auto& [id, fetch] : fetches) {
        if (fetch.file != nullptr) {
            std::fclose(fetch.file);
        }
    }
    if (listen_fd >= 0) {
        close(listen_fd);
    }
    if (control_fd >= 0) {
        close(control_fd);
        unlink((store.folder + "/control.sock").c_str());  // it may be gone already
    }
    KComExit(&keys);
}

std::string cp_time_text() {
    const time_t now = time(nullptr);
    tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    return text;
}

void cp_emit(cp_server& server, const std::string& kind, const std::string& agent, int run,
             const std::string& text) {
    if (server.observer) {
        server.observer({cp_time_text(), kind, agent, run, text});
    }
}

std::unique_ptr<cp_server, void (*)(cp_server*)> cp_server_open(const cp_options& options,
                                                                std::string& error) {
    std::unique_ptr<cp_server, void (*)(cp_server*)> server(new cp_server, cp_server_close);
    server->options = options;
    std::string& system = server->options.system;
    std::transform(system.begin(), system.end(), system.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (system.empty() || system.size() > 32) {
        error = "the system name has 1 to 32 characters";
        return {nullptr, cp_server_close};
    }
    error = cp_store_open(server->store, options.folder);
    if (!error.empty()) {
        return {nullptr, cp_server_close};
    }
    if (int number = KComInit(&server->keys, system, options.name, {}, options.folder + "/KStore.ini");
        number != 0) {
        error = fmt::format("the key store '{}/KStore.ini' cannot be used: {}", options.folder,
                            cp_message_text(number, ""));
        return {nullptr, cp_server_close};
    }
    if (error = options.own_company_key ? cp_make_company_key(*server) : ""; !error.empty()) {
        return {nullptr, cp_server_close};
    }
    KMsetGSSCallback();  // session keys come from the key manager
    server->identity = {&server->keys, options.name, system, options.ranking, options.cp_list, 3};
    server->listen_fd = open_listener(options.address, options.port, error);
    if (server->listen_fd < 0) {
        return {nullptr, cp_server_close};
    }
    server->port = port_of(server->listen_fd);
    if (options.control && !cp_control_open(*server, error)) {
        return {nullptr, cp_server_close};
    }
    return server;
}

void cp_server_close(cp_server* server) {
    delete server;
}

int cp_server_port(const cp_server* server) {
    return server->port;
}

cp_options& cp_server_options(cp_server* server) {
    return server->options;
}

cp_store& cp_server_store(cp_server* server) {
    return server->store;
}

void cp_server_observe(cp_server* server, cp_observer observer) {
    server->observer = std::move(observer);
}

void cp_server_tap(cp_server* server, cp_message_tap tap) {
    server->tap = std::move(tap);
}

void cp_server_step(cp_server* server, int timeout_ms) {
    cp_control_end_silent(*server);
    end_agents(*server);
    end_clients(*server);
    cp_end_unwanted_reads(*server);
    std::vector<pollfd> wait;
    wait.push_back({server->listen_fd, POLLIN, 0});
    wait.push_back({server->control_fd, POLLIN, 0});
    for (auto& agent : server->agents) {
        wait.push_back(
            {agent->fd, static_cast<short>(agent->link.out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
    }
    for (auto& client : server->clients) {
        wait.push_back({client->fd, static_cast<short>(client->out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
    }
    if (poll(wait.data(), wait.size(), timeout_ms) <= 0) {
        return;
    }
    // Handlers append to both lists; only those that were waited for are looked at.
    const size_t agent_count = server->agents.size();
    const size_t client_count = server->clients.size();
    for (size_t i = 0; i < agent_count; ++i) {
        if ((wait[2 + i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            read_agent(*server, *server->agents[i]);
        }
    }
    for (size_t i = 0; i < client_count; ++i) {
        if ((wait[2 + agent_count + i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            cp_control_read(*server, *server->clients[i]);
        }
    }
    if (wait[0].revents != 0) {
        accept_agents(*server);
    }
    if (wait[1].revents != 0) {
        cp_control_accept(*server);
    }
    end_agents(*server);
    end_clients(*server);
}

bool cp_server_run_until(cp_server* server, int timeout_ms, const std::function<bool()>& done) {
    const auto end = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now()).count();
        if (left <= 0) {
            return done();
        }
        cp_server_step(server, static_cast<int>(std::min<long long>(left, 200)));
    }
    return true;
}

cp_agent* cp_find_agent(cp_server* server, const std::string& name) {
    cp_agent* found = nullptr;
    for (auto& agent : server->agents) {
        if (!agent->logged_on || agent->link.state != cp_link_state::sealed) {
            continue;
        }
        if (name.empty()) {
            if (found != nullptr) {
                return nullptr;
            }
            found = agent.get();
        } else if (strcasecmp(agent->link.agent.c_str(), name.c_str()) == 0) {
            return agent.get();
        }
    }
    return found;
}

const std::vector<std::unique_ptr<cp_agent>>& cp_agents(const cp_server* server) {
    return server->agents;
}

void cp_drop_line(cp_server* server, const std::string& agent) {
    if (cp_agent* found = cp_find_agent(server, agent)) {
        found->link.state = cp_link_state::ended;
        found->link.fault = "cut by order";
        found->link.out.clear();
    }
}
