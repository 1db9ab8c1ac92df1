// What stands beside a transfer in the same run: scp over an sshd and rsync to a daemon, both of this benchmark's
// own with keys and ports of their own, and the seal alone.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include "../sealing_pair.h"
#include "loopback.h"
#include "messages/view.h"
#include "road_bench.h"

// A service of this run. Ended with it.
struct peer_service {
    child_process process;
    int port = 0;
    std::string missing;  // why it does not run, empty when it does

    bool runs() const { return missing.empty(); }
    void start(const std::vector<std::string>& command, const std::string& output) {
        start_program(process, command, output);
        const bool answers = wait_until(5000, [this] {
            const int fd = connect_to_loopback(port);
            close(fd);
            return fd >= 0 || !process.running();
        });
        if (!answers || !process.running()) {
            missing = command[0] + " does not run: " + process.output();
        }
    }
};

struct peers {
    scratch_folder folder;
    peer_service ssh;
    peer_service rsync;
    std::vector<std::string> scp_options;

    peers() {
        start_ssh();
        start_rsync();
    }

    // Seconds; below 0: it cannot be done, as was said.
    double scp(const std::vector<std::string>& options, const std::string& from, const std::string& to) {
        std::vector<std::string> command = {"/usr/bin/scp"};
        command.insert(command.end(), scp_options.begin(), scp_options.end());
        command.insert(command.end(), options.begin(), options.end());
        command.insert(command.end(), {from, own_name() + "@127.0.0.1:" + to});
        return ssh.runs() ? timed(command) : -1;
    }
    // To a folder of this host. `line_bytes` takes what went over the line both ways.
    double push(const std::vector<std::string>& options, const std::string& from, const std::string& to,
                int64_t* line_bytes = nullptr) {
        std::vector<std::string> command = {"/usr/bin/rsync", "-rt", "--whole-file", "--stats"};
        command.insert(command.end(), options.begin(), options.end());
        command.insert(command.end(),
                       {from, "rsync://127.0.0.1:" + std::to_string(rsync.port) + "/data" + to});
        std::string output;
        const double time = rsync.runs() ? timed(command, &output) : -1;
        if (line_bytes != nullptr) {
            *line_bytes =
                number_behind(output, "Total bytes sent: ") + number_behind(output, "bytes received: ");
        }
        return time;
    }

    static std::string own_name() {
        const passwd* account = getpwuid(geteuid());
        return account != nullptr ? account->pw_name : "root";
    }

  private:
    static double timed(const std::vector<std::string>& command, std::string* output = nullptr) {
        constexpr int patience_ms = 600000;
        std::string told;
        const auto start = clock_type::now();
        const int code = run_program(command, told, patience_ms);
        const double time = seconds_since(start);
        if (code != 0) {
            fmt::print(stderr, "bench: {} ended with {}: {}\n", command[0], code, told);
            return -1;
        }
        if (output != nullptr) {
            *output = told;
        }
        return time;
    }

    static int64_t number_behind(const std::string& text, const std::string& words) {
        const size_t at = text.find(words);
        std::string digits;
        for (size_t i = at + words.size(); at != std::string::npos && i < text.size() && text[i] != '\n';
             ++i) {
            if (isdigit(static_cast<unsigned char>(text[i])) != 0) {
                digits += text[i];
            }
        }
        return digits.empty() ? 0 : std::atoll(digits.c_str());
    }

    void start_ssh() {
        for (const char* program : {"/usr/sbin/sshd", "/usr/bin/scp", "/usr/bin/ssh-keygen"}) {
            if (access(program, X_OK) != 0) {
                ssh.missing = std::string(program) + " is not there (scripts/setup --peers)";
                return;
            }
        }
        std::string output;
        for (const char* key : {"host_key", "own_key"}) {
            run_program({"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / key}, output);
        }
        ssh.port = free_port();
        const std::string port = std::to_string(ssh.port);
        write_file(folder / "sshd_config", "Port " + port + "\nListenAddress 127.0.0.1\nHostKey " +
                                               (folder / "host_key") + "\nAuthorizedKeysFile " +
                                               (folder / "own_key.pub") +
                                               "\nStrictModes no\nUsePAM no\nPasswordAuthentication no\n"
                                               "PermitRootLogin yes\nPidFile none\n"
                                               "Subsystem sftp internal-sftp\n");
        if (is_root()) {
            mkdir("/run/sshd", 0755);  // it wants the folder; it may be there
        }
        ssh.start({"/usr/sbin/sshd", "-D", "-e", "-f", folder / "sshd_config"}, folder / "sshd.out");
        scp_options = {"-q",
                       "-F",
                       "none",
                       "-P",
                       port,
                       "-i",
                       folder / "own_key",
                       "-o",
                       "StrictHostKeyChecking=no",
                       "-o",
                       "UserKnownHostsFile=/dev/null",
                       "-o",
                       "BatchMode=yes",
                       "-o",
                       "IdentitiesOnly=yes"};
    }

    void start_rsync() {
        if (access("/usr/bin/rsync", X_OK) != 0) {
            rsync.missing = "/usr/bin/rsync is not there (scripts/setup --bench)";
            return;
        }
        rsync.port = free_port();
        write_file(folder / "rsyncd.conf", "use chroot = no\n" +
                                               std::string(is_root() ? "uid = 0\ngid = 0\n" : "") +
                                               "[data]\npath = /\nread only = no\n");
        rsync.start({"/usr/bin/rsync", "--daemon", "--no-detach", "--address=127.0.0.1",
                     "--port=" + std::to_string(rsync.port), "--config=" + (folder / "rsyncd.conf")},
                    folder / "rsync.out");
    }
};

struct seal_cost {
    double seal = 0;  // processor seconds of one thread
    double open = 0;
};

// Of so many bytes in blocks of a transfer, under QOP 3.
inline seal_cost seal_alone(int64_t size) {
    constexpr gss_qop_t quality = 3;
    constexpr size_t block = 32256;
    sealing_pair pair;
    const std::vector<uint8_t> plain(block, 'x');
    std::vector<uint8_t> sealed(CalcMsgSize(block)), opened(sealed.size());
    seal_cost cost;
    for (int64_t done = 0; done < size; done += static_cast<int64_t>(block)) {
        size_t written = 0, read = 0;
        const double begin = own_cpu_seconds();
        const bool good =
            gss_wrap_ex(nullptr, pair.initiator, 1, quality, plain, sealed, &written) == GSS_S_COMPLETE;
        const double between = own_cpu_seconds();
        if (!good || gss_unwrap_ex(nullptr, pair.acceptor, quality, {sealed.data(), written}, opened, &read,
                                   nullptr) != GSS_S_COMPLETE) {
            fmt::print(stderr, "bench: a block was not sealed or opened\n");
            std::exit(1);
        }
        cost.seal += between - begin;
        cost.open += own_cpu_seconds() - between;
    }
    return cost;
}
