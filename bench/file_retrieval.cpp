// The last 1,000 lines of a file of 10 GB, from opening to the text that is sent, beside `tail -n 1000`.
#include "retrieval/file_retrieval.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/context.h"

extern char** environ;

namespace {

constexpr off_t file_size = 10LL << 30;
constexpr int lines = 1000;
constexpr int rounds = 15;

[[noreturn]] void fail(const char* what) {
    perror(what);
    exit(1);
}

// Sparse, with real lines at its end.
std::string make_file(off_t size) {
    char name[] = "/tmp/qx-bench-XXXXXX";
    const int fd = mkostemp(name, O_CLOEXEC);
    std::string end = "\n";
    for (int i = 0; i < 20000; ++i) {
        end += "2026-11-24 22:55:52.000 line " + std::to_string(i) + " of a log, with what a line says\n";
    }
    const off_t place = size - static_cast<off_t>(end.size());
    if (fd < 0 || ftruncate(fd, size) != 0 ||
        pwrite(fd, end.data(), end.size(), place) != static_cast<ssize_t>(end.size())) {
        fail(name);
    }
    close(fd);
    return name;
}

size_t retrieve(const std::string& name) {
    GETF_PL request;
    request.gf_cData.cd_filetype = FILE_REQUEST_TEXT;
    request.gf_cData.cd_readdirection = FILE_REQUEST_END;
    request.gf_records = lines;
    request.gf_blocksize = 524288;
    request.gf_maxRecSize = request.gf_blocksize - static_cast<size_t>(file_request_block_min);
    request.gf_sFileName = name;
    qx7_error error;
    size_t sent = 0;
    if (create_sendRecBuf(&request, &error) != 0) {
        fail(error.qx_msgInsert);
    }
    while (request.gf_restSendSize > 0) {
        if (read_recordsToBuff(&request, &error) != 0) {
            fail(error.qx_msgInsert);
        }
        sent += file_answer_data("key", request.gf_pCdataBuff).size();
    }
    return sent;
}

void run_tail(const std::string& name) {
    const std::string count = std::to_string(lines);
    char* arguments[] = {const_cast<char*>("tail"), const_cast<char*>("-n"), const_cast<char*>(count.c_str()),
                         const_cast<char*>(name.c_str()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    int status = 0;
    if (posix_spawnp(&pid, "tail", &actions, nullptr, arguments, environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        fail("tail");
    }
    posix_spawn_file_actions_destroy(&actions);
}

void forget_pages(const std::string& name) {
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    fdatasync(fd);
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    close(fd);
}

double milliseconds_of(void (*work)(const std::string&), const std::string& name) {
    const auto start = std::chrono::steady_clock::now();
    work(name);
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

long peak_kilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

}  // namespace

int main() {
    static EX_PCX pcx;
    GlbPcx = &pcx;
    const auto work = [](const std::string& name) { (void)retrieve(name); };
    const std::string small = make_file(16LL << 20);
    const std::string huge = make_file(file_size);
    const size_t sent = retrieve(small);
    const long before = peak_kilobytes();
    std::vector<double> own, peer, cold;
    for (int i = 0; i < rounds; ++i) {
        forget_pages(huge);
        cold.push_back(milliseconds_of(work, huge));
        own.push_back(milliseconds_of(work, huge));
        peer.push_back(milliseconds_of(run_tail, huge));
    }
    printf(
        "tail of %d lines of a file of 10 GB: %.2f ms (%.2f ms with nothing in memory, aim 50), tail -n %d "
        "%.2f ms, ratio %.2f; %zu bytes of answer; peak memory grows by %ld kB beside a file of 16 MB\n",
        lines, median(own), median(cold), lines, median(peer), median(own) / median(peer), sent,
        peak_kilobytes() - before);
    unlink(small.c_str());
    unlink(huge.c_str());
    return 0;
}
