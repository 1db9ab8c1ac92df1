#include "installation.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "loopback.h"

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

namespace {

[[noreturn]] void give_up(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

int left_ms(clock_type::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

std::string place_of_folders() {
    const char* place = std::getenv("TMPDIR");
    return place != nullptr && *place != '\0' ? place : "/tmp";
}

}  // namespace

scratch_folder::scratch_folder() : scratch(place_of_folders()) {
    chmod(path.c_str(), 0755);
}

child_process::~child_process() {
    kill_now();
}

bool child_process::running() {
    if (pid <= 0) {
        return false;
    }
    const pid_t ended = waitpid(pid, &status, WNOHANG);
    if (ended == pid) {
        pid = -1;
        return false;
    }
    return true;
}

bool child_process::wait_end(int timeout_ms) {
    if (pid <= 0) {
        return true;
    }
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd >= 0) {
        pollfd wait{fd, POLLIN, 0};
        const auto end = clock_type::now() + std::chrono::milliseconds(timeout_ms);
        while (poll(&wait, 1, left_ms(end)) < 0 && errno == EINTR) {
        }
        close(fd);
    }
    return !running();
}

int child_process::exit_code() const {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void child_process::signal(int number) const {
    if (pid > 0) {
        kill(pid, number);
    }
}

void child_process::kill_now() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        pid = -1;
    }
}

std::string child_process::output() const {
    return read_file(output_path);
}

void start_program(child_process& child, const std::vector<std::string>& arguments,
                   const std::string& output_path, const std::string& folder,
                   const std::map<std::string, std::string>& environment) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    child.output_path = output_path;
    child.pid = fork();
    if (child.pid < 0) {
        give_up("fork");
    }
    if (child.pid != 0) {
        return;
    }
    const int out = open(output_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    if (!folder.empty() && chdir(folder.c_str()) != 0) {
        _exit(126);
    }
    for (const auto& [key, value] : environment) {
        setenv(key.c_str(), value.c_str(), 1);
    }
    syscall(SYS_close_range, 3, ~0U, 0);
    execv(argv[0], argv.data());
    _exit(127);
}

int run_program(const std::vector<std::string>& arguments, std::string& output, int timeout_ms) {
    scratch_folder folder;
    child_process child;
    start_program(child, arguments, folder.path + "/out");
    const bool ended = child.wait_end(timeout_ms);
    output = child.output();
    return ended ? child.exit_code() : -2;
}

installation::installation(const std::string& agent_name, int server_port, const std::string& system) {
    for (const char* part : {"bin", "temp", "out", "backup", "resources"}) {
        fs::create_directory(path(part));
    }
    fs::create_symlink(QX_AGENT_PROGRAM, path("bin/qxxjlnx"));
    fs::create_symlink(QX_MESSENGER_PROGRAM, path("bin/qxxjlnxm"));
    fs::create_symlink(QX_MESSAGE_LIBRARY, path("bin/QXX.msl"));
    listener_port = free_port();
    ini["GLOBAL"] = {{"name", agent_name},     {"system", system},
                     {"helplib", "./QXX.msl"}, {"logging", "../temp/agent.l##"},
                     {"language", "(E,D)"},    {"login_check", "no"},
                     {"hardened", "yes"}};
    ini["TCP/IP"] = {{"cp", "127.0.0.1:" + std::to_string(server_port)},
                     {"port", std::to_string(listener_port)},
                     {"connwait", "5"},
                     {"alarm", "1"}};
    ini["TRACE"] = {{"file", "../temp/agent.t##"}};
    ini["AUTHORIZATION"] = {{"KeyStore", "./KStore.ini"}};
    ini["VARIABLES"] = {{"QX_EX_JOB_MD", "./qxxjlnxm"},       {"QX_EX_PATH_TEMP", "../temp"},
                        {"QX_EX_PATH_JOBREPORT", "../out"},   {"QX_EX_PATH_BACKUP", "../backup"},
                        {"QX_EX_PATH_CACHE", "../resources"}, {"QX_EX_PATH_BIN", "./"}};
    if (is_root()) {
        ini["USERID"] = {{"root", "START"}};
    }
}

installation::~installation() {
    if (agent.running()) {
        const pid_t listener = listener_pid();
        agent.kill_now();
        if (listener > 1) {
            kill(listener, SIGKILL);
        }
    }
}

void installation::write_ini() const {
    std::string text;
    for (const auto& [section, keys] : ini) {
        text += "[" + section + "]\n";
        for (const auto& [key, value] : keys) {
            text += key + "=" + value + "\n";
        }
        text += "\n";
    }
    write_file(ini_path(), text);
}

void installation::start() {
    write_ini();
    start_program(agent, {path("bin/qxxjlnx")}, path("agent.out"));
}

bool installation::stop(int timeout_ms) {
    agent.signal(SIGTERM);
    return agent.wait_end(timeout_ms);
}

std::string installation::log() const {
    return read_file(path("temp/agent.l00"));
}

pid_t installation::listener_pid() const {
    std::istringstream children(
        read_file("/proc/" + std::to_string(agent.pid) + "/task/" + std::to_string(agent.pid) + "/children"));
    pid_t child;
    while (children >> child) {
        if (read_file("/proc/" + std::to_string(child) + "/cmdline").find("-listener") != std::string::npos) {
            return child;
        }
    }
    return -1;
}

int free_port() {
    int port = 0;
    const int fd = listen_on_loopback(&port);
    if (fd < 0) {
        give_up("no free port");
    }
    close(fd);
    return port;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), mode);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool is_root() {
    return geteuid() == 0;
}

test_user::test_user(const std::string& user_name, bool with_home) : name(user_name) {
    std::string output;
    run_program({"/usr/sbin/userdel", "-f", "-r", name}, output);  // left by a run that was killed
    home = with_home ? "/tmp/qx-home-" + name : "/nonexistent/qx-home";
    std::vector<std::string> command = {"/usr/sbin/useradd", "-d", home, "-s", "/bin/sh"};
    command.push_back(with_home ? "-m" : "-M");
    command.push_back(name);
    if (run_program(command, output) != 0) {
        throw std::runtime_error("useradd: " + output);
    }
    if (const passwd* entry = getpwnam(name.c_str())) {
        uid = entry->pw_uid;
        gid = entry->pw_gid;
    }
}

test_user::~test_user() {
    std::string output;
    run_program({"/usr/sbin/userdel", "-f", "-r", name}, output);
}

bool wait_until(int timeout_ms, const std::function<bool()>& done) {
    const auto end = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (clock_type::now() >= end) {
            return false;
        }
        poll(nullptr, 0, 5);
    }
    return true;
}
