// What a transfer between two agents costs, beside scp, rsync, the compressor and the seal alone, in the same run
// and in turn. All files are in memory (/dev/shm). Prints one table: a figure is a median, its spread stands in
// brackets.
//
//   bench_transfer [--quick | --only binary|text|small|restart|many|first]
#include <sys/inotify.h>

#include <random>
#include <sstream>
#include <thread>

#include "agent_line.h"
#include "qxcp/agents/transfers.h"
#include "security/md5.h"
#include "transfer_peers.h"

namespace fs = std::filesystem;

namespace {

constexpr int64_t gibibyte = int64_t{1} << 30;

// ---- two agents under one server

struct agent_pair {
    scratch_folder folder;
    cp_options options;
    std::unique_ptr<cp_server, void (*)(cp_server*)> server{nullptr, cp_server_close};
    std::unique_ptr<installation> source;
    std::unique_ptr<installation> destination;
    agent_line line;
    bool over_line = false;
    double worker_mb = 0;  // most memory that a worker was seen to have

    agent_pair() {
        options.system = "BENCH";
        options.folder = folder / "cp";
        options.control = false;
        options.transfer_restart = 1;
        std::string error;
        server = cp_server_open(options, error);
        need(server != nullptr, error);
        source = std::make_unique<installation>("SOURCE", cp_server_port(server.get()), "BENCH");
        destination = std::make_unique<installation>("DEST", cp_server_port(server.get()), "BENCH");
        source->start();
        destination->start();
        for (const char* name : {"SOURCE", "DEST"}) {
            need(until(30000, [&] { return cp_find_agent(server.get(), name) != nullptr; }), "no logon");
        }
    }
    ~agent_pair() {
        source->stop();
        destination->stop();
    }

    void need(bool good, const std::string& what) const {
        if (!good) {
            fmt::print(stderr, "bench: {}\n{}\n{}\n", what, source ? source->log() : "",
                       destination ? destination->log() : "");
            std::exit(1);
        }
    }
    bool until(int timeout_ms, const std::function<bool()>& done) {
        return wait_until(timeout_ms, [&] {
            cp_server_step(server.get(), 1);
            return done();
        });
    }

    void prepare_line() {
        line.lead_to(destination->listener_port);
        cp_find_agent(server.get(), "DEST")->listener_port =
            over_line ? line.port : destination->listener_port;
    }
    cp_transfer wish(const std::string& from, const std::string& to) const {
        cp_transfer wish;
        wish.source.agent = "SOURCE";
        wish.source.path = from;
        wish.destination.agent = "DEST";
        wish.destination.path = to;
        wish.overwrite = 'Y';
        need(cp_complete_paths(wish).empty(), "the paths");
        return wish;
    }
    int order(const cp_transfer& wish) {
        prepare_line();
        std::string error;
        const int run = cp_order_transfer(server.get(), wish, error);
        need(run != 0, error);
        return run;
    }
    int restart(int run) {
        prepare_line();
        std::string error;
        const int next = cp_restart_transfer(server.get(), run, {}, error);
        need(next != 0, error);
        return next;
    }

    cp_transfer& transfer(int run) { return *cp_find_transfer(server.get(), run); }
    bool is_over(int run) { return cp_transfer_is_over(transfer(run).state); }
    void need_finished(int run) {
        constexpr int patience_ms = 600000;
        until(patience_ms, [&] { return is_over(run); });
        need(transfer(run).state == cp_transfer_state::finished, "a transfer did not finish");
    }
    // Until no worker is left, whose processor time then counts as the agents'.
    void settle() {
        need(until(20000, [this] { return workers().empty(); }), "a worker stays");
        until(200, [] { return false; });
    }
    // Seconds from the order to the last state.
    double send(const cp_transfer& wish) {
        const auto start = clock_type::now();
        const int run = order(wish);
        need_finished(run);
        const double time = seconds_since(start);
        settle();
        return time;
    }

    std::vector<pid_t> workers() const {
        std::vector<pid_t> found;
        for (const installation* host : {source.get(), destination.get()}) {
            const std::string pid = std::to_string(host->agent.pid);
            std::istringstream children(read_file("/proc/" + pid + "/task/" + pid + "/children"));
            for (pid_t child; children >> child;) {
                if (read_file("/proc/" + std::to_string(child) + "/cmdline").rfind("ft-", 0) == 0) {
                    found.push_back(child);
                }
            }
        }
        return found;
    }
    void look_at_memory() {
        for (const pid_t worker : workers()) {
            worker_mb = std::max(worker_mb, status_mb(worker, "VmHWM:"));
        }
    }
    // Of both agents and of their workers that have ended.
    double cpu() const {
        double ticks = 0;
        for (const installation* host : {source.get(), destination.get()}) {
            const std::string stat = read_file("/proc/" + std::to_string(host->agent.pid) + "/stat");
            std::istringstream fields(stat.substr(stat.rfind(')') + 2));
            std::string field;
            constexpr int first_time = 11, last_time = 14;  // utime, stime, and those of ended children
            for (int i = 0; i <= last_time && fields >> field; ++i) {
                ticks += i >= first_time ? std::atof(field.c_str()) : 0;
            }
        }
        return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    }
};

// ---- figures

using series = std::vector<double>;

series rates(const series& times, int64_t size) {
    series all;
    for (const double time : times) {
        all.push_back(static_cast<double>(size) / 1e6 / time);
    }
    return all;
}

std::string spread(const series& values, const char* unit, int digits = 0) {
    const auto [least, most] = std::minmax_element(values.begin(), values.end());
    return fmt::format("{:.{}f} {} ({:.{}f}-{:.{}f})", median(values), digits, unit, *least, digits, *most,
                       digits);
}

bool done(const series& times) {
    return !times.empty() && *std::min_element(times.begin(), times.end()) > 0;
}

// A row of two series; `more`: the own one shall be at least `aim` times the peer's, else at most.
void compare(const std::string& what, const series& own, const std::string& peer_name, const series& peer,
             const char* unit, double aim, bool more, int digits = 0) {
    if (!done(peer)) {
        fmt::print("{:<46} {:>16}   {} did not run\n", what, spread(own, unit, digits), peer_name);
        return;
    }
    const double ratio = median(own) / median(peer);
    row(what, spread(own, unit, digits), peer_name + " " + spread(peer, unit, digits),
        fmt::format("{:.2f}", ratio), fmt::format("at {} {:g} of it", more ? "least" : "most", aim),
        more ? ratio >= aim : ratio <= aim);
}

struct table {
    bench_options options;
    agent_pair agents;
    peers beside;
    scratch_folder data;
    int rounds;
    int64_t unit;  // a gibibyte, or the hundredth

    explicit table(const bench_options& wanted)
        : options(wanted), rounds(wanted.quick ? 1 : 5), unit(wanted.quick ? gibibyte / 100 : gibibyte) {
        for (const peer_service* one : {&beside.ssh, &beside.rsync}) {
            if (!one->runs()) {
                fmt::print("cannot run: {}\n", one->missing);
            }
        }
    }
    std::string fresh_folder(const std::string& name) const {
        fs::remove_all(data / name);
        fs::create_directory(data / name);
        return data / name + "/";
    }
};

std::string random_file(const table& t, const std::string& name, int64_t size) {
    std::mt19937_64 random(1);
    std::vector<uint64_t> block(1 << 17);
    std::ofstream file(t.data / name, std::ios::binary);
    for (int64_t at = 0; at < size; at += static_cast<int64_t>(block.size() * 8)) {
        std::generate(block.begin(), block.end(), std::ref(random));
        file.write(reinterpret_cast<const char*>(block.data()),
                   static_cast<std::streamsize>(
                       std::min<int64_t>(static_cast<int64_t>(block.size() * 8), size - at)));
    }
    return t.data / name;
}

std::string log_file(const table& t, const std::string& name, int64_t size) {
    std::mt19937 random(1);
    std::ofstream file(t.data / name, std::ios::binary);
    for (int64_t at = 0; at < size;) {
        const std::string line =
            fmt::format("2026-11-24 {:02}:{:02}:{:02}.{:03} [{:5}] INFO: transfer {} of file {} ended\n",
                        random() % 24, random() % 60, random() % 60, random() % 1000, 1000 + random() % 8,
                        random() % 65536, random() % 64);
        file << line;
        at += static_cast<int64_t>(line.size());
    }
    return t.data / name;
}

// ---- rows

void measure_binary(table& t) {
    const std::string file = random_file(t, "random", t.unit);
    series own, own_cpu, copied, sealed, sealed_and_opened;
    for (int i = 0; i < t.rounds; ++i) {
        const seal_cost cost = seal_alone(t.unit);
        sealed.push_back(cost.seal);
        sealed_and_opened.push_back(cost.seal + cost.open);
        const double before = t.agents.cpu();
        own.push_back(t.agents.send(t.agents.wish(file, t.fresh_folder("to"))));
        own_cpu.push_back(t.agents.cpu() - before);
        copied.push_back(t.beside.scp({"-c", "aes128-gcm@openssh.com"}, file, t.fresh_folder("to")));
    }
    const series own_rates = rates(own, t.unit);
    compare("1 GiB random, not compressed", own_rates, "scp", rates(copied, t.unit), "MB/s", 1, true);
    compare("the same beside one seal", own_rates, "seal", rates(sealed, t.unit), "MB/s", 0.75, true);
    compare("processor time of both sides", own_cpu, "seal and opening", sealed_and_opened, "s", 1.3, false,
            2);
    unlink(file.c_str());
}

int64_t bytes_on_the_line(table& t, const cp_transfer& wish) {
    t.agents.over_line = true;
    const long before = t.agents.line.passed();
    t.agents.send(wish);
    t.agents.over_line = false;
    return t.agents.line.passed() - before;
}

void measure_text(table& t) {
    const std::string file = log_file(t, "log", t.unit);
    series own, as_text, packed, copied;
    for (int i = 0; i < t.rounds; ++i) {
        std::string output;
        const auto start = clock_type::now();
        run_program({QX_PACK_PROGRAM, "c", "-f", "-o", t.data / "packed", file}, output, 600000);
        packed.push_back(seconds_since(start));
        cp_transfer wish = t.agents.wish(file, t.fresh_folder("to"));
        wish.compress = '1';
        own.push_back(t.agents.send(wish));
        wish.text = true;
        as_text.push_back(t.agents.send(wish));
        copied.push_back(t.beside.scp({"-C"}, file, t.fresh_folder("to")));
    }
    const series own_rates = rates(own, t.unit);
    compare("1 GiB log text, compressed", own_rates, "qxpack", rates(packed, t.unit), "MB/s", 0.9, true);
    compare("the same beside scp -C", own_rates, "scp -C", rates(copied, t.unit), "MB/s", 1, true);
    compare("the same as a text (--text)", rates(as_text, t.unit), "qxpack", rates(packed, t.unit), "MB/s",
            0.9, true);
    cp_transfer wish = t.agents.wish(file, t.fresh_folder("to"));
    wish.compress = '1';
    const auto own_bytes = static_cast<double>(bytes_on_the_line(t, wish));
    int64_t bytes = 0;
    t.beside.push({"-z"}, file, t.fresh_folder("to"), &bytes);
    compare("its bytes on the line", {own_bytes / 1e6}, "rsync -z", {static_cast<double>(bytes) / 1e6}, "MB",
            1, false, 1);
    unlink(file.c_str());
    unlink((t.data / "packed").c_str());
}

void measure_small(table& t) {
    const int count = t.options.count(10000);
    const std::string from = t.fresh_folder("many");
    for (int i = 0; i < count; ++i) {
        write_file(from + "file" + std::to_string(i), std::string(2000, static_cast<char>('a' + i % 26)));
    }
    series own, pushed, copied;
    for (int i = 0; i < t.rounds; ++i) {
        own.push_back(t.agents.send(t.agents.wish(from, t.fresh_folder("to"))));
        pushed.push_back(t.beside.push({}, from, t.fresh_folder("to")));
        copied.push_back(t.beside.scp({"-r"}, from, t.fresh_folder("to")));
    }
    const std::string what = fmt::format("{} files of 2 kB", count);
    compare(what, own, "rsync", pushed, "s", 2, false, 2);
    compare("the same beside scp -r", own, "scp", copied, "s", 0.1, false, 2);
    fs::remove_all(from);
}

// Seconds for the digest of the first `size` bytes, twice at the same time.
double read_twice(const std::string& file, int64_t size) {
    const auto digest = [&] {
        std::vector<char> block(1 << 20);
        std::ifstream in(file, std::ios::binary);
        md5_context context;
        md5_init(&context);
        for (int64_t left = size; left > 0 && in;) {
            in.read(block.data(), std::min<int64_t>(left, static_cast<int64_t>(block.size())));
            md5_update(&context, block.data(), static_cast<size_t>(in.gcount()));
            left -= in.gcount();
        }
        uint8_t result[md5_size];
        md5_final(&context, result);
    };
    const auto start = clock_type::now();
    std::thread other(digest);
    digest();
    other.join();
    return seconds_since(start);
}

int64_t bytes_in(const std::string& folder) {
    int64_t sum = 0;
    std::error_code gone;
    for (const auto& entry : fs::directory_iterator(folder, gone)) {
        const auto size = entry.file_size(gone);
        sum += gone ? 0 : static_cast<int64_t>(size);
    }
    return sum;
}

void measure_restart(table& t) {
    const int64_t size = 4 * t.unit;
    const std::string file = random_file(t, "large", size);
    series own, read;
    for (int i = 0; i < t.rounds; ++i) {
        const std::string to = t.fresh_folder("to");
        t.agents.over_line = true;
        t.agents.line.stand_still_after(size / 2);
        const int run = t.agents.order(t.agents.wish(file, to));
        t.agents.need(t.agents.until(600000, [&] { return t.agents.line.stands_still(); }), "no half");
        t.agents.line.cut();
        t.agents.need(t.agents.until(30000, [&] { return t.agents.is_over(run); }), "the cut is not noticed");
        t.agents.settle();
        t.agents.over_line = false;
        int64_t prefix = bytes_in(to);
        const auto start = clock_type::now();
        const int next = t.agents.restart(run);
        // It cuts what is behind the point from which it goes on; then it grows.
        t.agents.need(t.agents.until(120000,
                                     [&] {
                                         const int64_t now = bytes_in(to);
                                         const bool grows = now > prefix;
                                         prefix = std::min(prefix, now);
                                         return grows;
                                     }),
                      "it does not go on");
        own.push_back(seconds_since(start));
        t.agents.need_finished(next);
        t.agents.settle();
        read.push_back(read_twice(file, prefix));
    }
    compare("4 GiB cut at its half: until it goes on", own, "two digests at once", read, "s", 1, false, 2);
    unlink(file.c_str());
    t.fresh_folder("to");
}

void measure_many(table& t) {
    constexpr int together = 20;
    const int64_t size = t.unit / together;
    const std::string file = random_file(t, "random", size);
    const std::string whole = random_file(t, "whole", size * together);
    series one, all;
    for (int i = 0; i < t.rounds; ++i) {
        one.push_back(t.agents.send(t.agents.wish(whole, t.fresh_folder("to"))));
        const std::string to = t.fresh_folder("to");
        const auto start = clock_type::now();
        std::vector<int> runs;
        for (int k = 0; k < together; ++k) {
            runs.push_back(t.agents.order(t.agents.wish(file, to + std::to_string(k))));
        }
        auto looked = start;
        for (const int run : runs) {
            t.agents.until(600000, [&] {
                if (seconds_since(looked) > 0.2) {
                    t.agents.look_at_memory();
                    looked = clock_type::now();
                }
                return t.agents.is_over(run);
            });
            t.agents.need_finished(run);
        }
        all.push_back(seconds_since(start));
        t.agents.settle();
    }
    compare("20 transfers at once, sum of their rates", rates(all, size * together), "one",
            rates(one, size * together), "MB/s", 0.9, true);
    row("most memory of a worker", fmt::format("{:.1f} MB", t.agents.worker_mb), "", "", "at most 12 MB",
        t.agents.worker_mb <= 12);
    unlink(file.c_str());
    unlink(whole.c_str());
}

void measure_first(table& t) {
    const std::string file = t.data / "small";
    write_file(file, std::string(2000, 'x'));
    series times;
    for (int i = 0; i < t.options.count(100); ++i) {
        const std::string to = t.fresh_folder("to");
        const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        inotify_add_watch(watch, to.c_str(), IN_MODIFY);
        char event[4096];
        const auto start = clock_type::now();
        const int run = t.agents.order(t.agents.wish(file, to));
        t.agents.need(t.agents.until(20000, [&] { return read(watch, event, sizeof event) > 0; }), "no byte");
        times.push_back(seconds_since(start) * 1e3);
        close(watch);
        t.agents.need_finished(run);
        t.agents.settle();
    }
    constexpr double aim = 20;
    row("order in to first byte on disk, small file", spread(times, "ms", 1), "", "", "at most 20 ms",
        median(times) <= aim);
}

}  // namespace

int main(int argc, char** argv) {
    if (!use_memory_folder()) {
        fmt::print(stderr,
                   "bench: /dev/shm cannot be used, or TMPDIR is set: the figures are those of a disk\n");
    }
    const bench_options options(argc, argv);
    table t(options);
    row_head();
    constexpr std::pair<const char*, void (*)(table&)> rows[] = {
        {"binary", measure_binary},   {"text", measure_text}, {"small", measure_small},
        {"restart", measure_restart}, {"many", measure_many}, {"first", measure_first}};
    for (const auto& [name, measure] : rows) {
        if (options.wanted(name)) {
            measure(t);
        }
    }
    return 0;
}
