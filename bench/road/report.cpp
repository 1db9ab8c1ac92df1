// A report of 100 MB from the real agent, sealed, in blocks, beside the seal alone in the same run. First the
// agent's side by itself: the reader takes the blocks from the socket unseen and asks for the next one. Then
// the whole way to the development server, which opens, converts and writes each block, beside sealing and
// opening. Prints one table.
//
//   bench_report [--rounds N | --quick]
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "../sealing_pair.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "road_bench.h"

namespace {

constexpr size_t report_size = 100000000;
constexpr int block_size = 32000;
constexpr double megabyte = 1e6;

// ---- the seal alone

// Seconds for as many blocks as a report has, sealed; with `open` also opened.
double seal_all(bool open) {
    constexpr gss_qop_t quality = 3;
    sealing_pair pair;
    const std::vector<uint8_t> plain(block_size, 'x');
    std::vector<uint8_t> sealed(CalcMsgSize(plain.size())), opened(sealed.size());
    const auto start = clock_type::now();
    for (size_t done = 0; done < report_size; done += plain.size()) {
        size_t written = 0, read = 0;
        if (gss_wrap_ex(nullptr, pair.initiator, 1, quality, plain, sealed, &written) != GSS_S_COMPLETE ||
            (open && gss_unwrap_ex(nullptr, pair.acceptor, quality, {sealed.data(), written}, opened, &read,
                                   nullptr) != GSS_S_COMPLETE)) {
            fmt::print(stderr, "bench: a block was not sealed or opened\n");
            std::exit(1);
        }
    }
    return seconds_since(start);
}

// ---- the reader that takes blocks unseen

// Takes `size` bytes from the socket, to `data` or, where that is null, to nowhere.
void take(int fd, char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = recv(fd, data, size, data == nullptr ? MSG_TRUNC : 0);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
            fmt::print(stderr, "bench: the agent has closed the line\n");
            std::exit(1);
        }
        const size_t taken = n < 0 ? 0 : static_cast<size_t>(n);
        data = data == nullptr ? nullptr : data + taken;
        size -= taken;
    }
}

// Bytes of the next frame's body, which is passed over.
size_t skip_frame(int fd) {
    char header[frame_header_size];
    take(fd, header, sizeof header);
    const size_t size = static_cast<size_t>(GetProtocolLength(header)) - sizeof header;
    take(fd, nullptr, size);
    return size;
}

template <class Record>
void ask(bench& b, cp_agent& agent, const Record& record) {
    cp_send(b.server.get(), agent, "QXREPEX", record);
    const std::string& out = agent.link.out;
    if (send(agent.fd, out.data(), out.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(out.size())) {
        std::perror("send");
        std::exit(1);
    }
    agent.link.out.clear();
}

// Seconds for the whole report. What comes is not opened, so that the line is of no use afterwards.
double drain(bench& b, const std::string& path) {
    cp_agent& agent = *cp_find_agent(b.server.get(), "BENCHAGENT");
    fcntl(agent.fd, F_SETFL, fcntl(agent.fd, F_GETFL) & ~O_NONBLOCK);
    auto get = new_message<MSG_TYPE_REP_GET>(100, 1);
    get.ah_idnr = 900000;
    put_text(get.filename, path);
    put_text(get.logininfo, b.own_user);
    put_text(get.rep_type, "REP");
    get.blksize = block_size;
    get.erase = '0';
    auto next = new_message<MSG_TYPE_REP_QUIT>(100, 1);
    next.ah_idnr = get.ah_idnr;
    const auto start = clock_type::now();
    ask(b, agent, get);
    size_t got = 0;
    for (size_t size = 0; got < report_size; got += size) {
        constexpr size_t smallest_block = 2000;
        do {
            size = skip_frame(agent.fd);
        } while (size < smallest_block);  // lines of the log, and the like
        next.rep_blk += 1;
        ask(b, agent, next);
    }
    const double time = seconds_since(start);
    agent.link.state = cp_link_state::ended;
    b.need(b.until(10000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") == nullptr; }),
           "the line's end");
    b.need(b.until(90000, [&] { return cp_find_agent(b.server.get(), "BENCHAGENT") != nullptr; }),
           "the next logon");
    return time;
}

double fetch(bench& b, int run) {
    cp_report_wish wish;
    wish.path = b.folder.path + "/fetched";
    wish.block_size = block_size;
    bool done = false;
    const auto start = clock_type::now();
    cp_fetch_report(b.server.get(), run, wish, [&done](const cp_answer& answer) {
        if (answer.status != "OK") {
            fmt::print(stderr, "bench: {} {}\n", answer.number, answer.insert);
            std::exit(1);
        }
        done = true;
    });
    b.need(b.until(120000, [&] { return done; }), "REP_END");
    return seconds_since(start);
}

struct figures {
    std::vector<double> drained, sealed, fetched, opened;
};

void show(const std::string& what, const std::vector<double>& own, const std::vector<double>& peer,
          const std::string& peer_name, double aim) {
    const double ratio = median(peer) / median(own);
    const auto rate = [](const std::vector<double>& times) {
        return fmt::format("{:.0f} MB/s", static_cast<double>(report_size) / megabyte / median(times));
    };
    row(what, rate(own), peer_name + " " + rate(peer), fmt::format("{:.2f}", ratio),
        fmt::format("at least {} of it", aim), ratio >= aim);
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
    const bool told = argc == 3 && std::strcmp(argv[1], "--rounds") == 0;
    const int rounds = quick ? 1 : told ? std::max(std::atoi(argv[2]), 1) : 7;
    bench b;
    row_head();
    cp_server_options(b.server.get()).reconnect = 1;  // each drained line is followed by a new one
    b.logon();
    const int run = b.submit(
        "yes \"a line of a report as programs write them, some eighty characters long it is\" | "
        "head -c 100000000");
    b.need(b.until(60000, [&] { return b.ended(run); }), "the job's end");
    const std::string path = b.job(run).report_file;
    figures f;
    for (int round = 0; round < rounds; ++round) {
        f.sealed.push_back(seal_all(false));
        f.drained.push_back(drain(b, path));
        f.opened.push_back(seal_all(true));
        f.fetched.push_back(fetch(b, run));
    }
    show("report of 100 MB, sealed: the agent's side", f.drained, f.sealed, "seal", 0.8);
    show("the same to qxcp", f.fetched, f.opened, "seal and opening", 0.8);
    b.host->stop();
    return 0;
}
