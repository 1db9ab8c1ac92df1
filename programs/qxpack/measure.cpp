// Speed and size of the methods on given files, beside other compressors, in one run. Speed is that of the
// processor time used, each program's own.
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "qxpack.h"

namespace {

struct Figures {
    uint64_t size = 0;
    double pack = 0;  // seconds
    double unpack = 0;
};

// Processor time, not time on the wall: what else the machine does must not count.
double seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

struct MemorySource {
    const std::vector<char>* data;
    size_t at = 0;
};

int readMemory(void* hIn, char* buf, int size, int /*mode*/, ErrMsg* /*err*/) {
    auto& source = *static_cast<MemorySource*>(hIn);
    const size_t n = std::min(static_cast<size_t>(size), source.data->size() - source.at);
    memcpy(buf, source.data->data() + source.at, n);
    source.at += n;
    return static_cast<int>(n);
}

int sizeOf(void* hIn, long* size, ErrMsg* /*err*/) {
    *size = static_cast<long>(static_cast<MemorySource*>(hIn)->data->size());
    return 0;
}

int countBytes(void* hOut, const char* /*buf*/, int len, int /*mode*/, ErrMsg* /*err*/) {
    *static_cast<uint64_t*>(hOut) += static_cast<uint64_t>(len);
    return 0;
}

bool measureMethod(const std::vector<char>& data, int id, Figures* figures, std::string* why) {
    std::vector<char> packed(data.size() + data.size() / 8 +
                             65536);  // its pages are touched before the time runs
    std::vector<char> piece(size_t{64} << 10);
    size_t filled = 0;
    MemorySource source{&data};
    ErrMsg err{};
    const double start = seconds();
    CompressFile* const cf = csOpen(&source, id, 0, readMemory, sizeOf, nullptr, nullptr, nullptr, &err);
    int n = -1;
    while (cf != nullptr &&
           (n = csRead(cf, packed.data() + filled, static_cast<int>(piece.size()), &err)) > 0) {
        filled += static_cast<size_t>(n);
        if (packed.size() - filled < piece.size()) {
            packed.resize(packed.size() * 2);
        }
    }
    csClose(cf);
    packed.resize(filled);
    const double middle = seconds();
    if (err.code != 0) {
        *why = errorText(err);
        return false;
    }
    uint64_t total = 0;
    DecompressFile* const df = dcsOpen(&total, 0, countBytes, &err);
    for (size_t at = 0; at < packed.size() && err.code == 0; at += piece.size()) {
        dcsWrite(df, packed.data() + at, static_cast<int>(std::min(piece.size(), packed.size() - at)), &err);
    }
    if (err.code == 0) {
        dcsClose(df, &err);
    }
    if (err.code != 0 || total != data.size()) {
        *why = err.code != 0 ? errorText(err) : "did not come back whole";
        return false;
    }
    *figures = {packed.size(), middle - start, seconds() - middle};
    return true;
}

// Runs a program from `in` to `out`. Returns its seconds, below 0 when it is not there or fails.
double runProgram(const std::vector<std::string>& words, int in, int out) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    lseek(in, 0, SEEK_SET);
    pid_t pid = -1;
    int status = -1;
    rusage used{};
    if (posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) == 0) {
        while (wait4(pid, &status, 0, &used) < 0 && errno == EINTR) {
        }
    }
    posix_spawn_file_actions_destroy(&actions);
    return status == 0 ? seconds(used.ru_utime) + seconds(used.ru_stime) : -1;
}

bool measureProgram(const std::vector<char>& data, const std::vector<std::string>& words, Figures* figures) {
    const int plain = memfd_create("plain", MFD_CLOEXEC);
    const int packed = memfd_create("packed", MFD_CLOEXEC);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    bool good = plain >= 0 && packed >= 0 && nowhere >= 0;
    for (size_t at = 0; good && at < data.size();) {
        const ssize_t n = write(plain, data.data() + at, data.size() - at);
        good = n > 0;
        at += good ? static_cast<size_t>(n) : 0;
    }
    if (good) {
        figures->pack = runProgram(words, plain, packed);
        figures->unpack = runProgram({words[0], "-dc"}, packed, nowhere);
        struct stat facts {};
        good = figures->pack >= 0 && figures->unpack >= 0 && fstat(packed, &facts) == 0;
        figures->size = static_cast<uint64_t>(facts.st_size);
    }
    for (const int fd : {plain, packed, nowhere}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    return good;
}

bool readFile(const std::string& name, std::vector<char>* data, std::string* why) {
    FILE* const file = fopen(name.c_str(), "rbe");
    if (file == nullptr) {
        *why = name + ": " + strerror(errno);
        return false;
    }
    char piece[65536];
    size_t n;
    while ((n = fread(piece, 1, sizeof piece, file)) > 0) {
        data->insert(data->end(), piece, piece + n);
    }
    const bool good = ferror(file) == 0;
    if (!good) {
        *why = name + ": " + strerror(errno);
    }
    fclose(file);
    return good;
}

void keepBest(Figures* best, const Figures& now, int round) {
    if (round == 0) {
        *best = now;
    }
    best->pack = std::min(best->pack, now.pack);
    best->unpack = std::min(best->unpack, now.unpack);
}

struct Contender {
    const char* name;
    int id;                          // a method, or
    std::vector<std::string> words;  // a program
    Figures best{};
    bool there = true;
};

bool measureFile(const std::string& name, int only, std::string* why) {
    std::vector<char> data;
    if (!readFile(name, &data, why)) {
        return false;
    }
    Contender contenders[] = {
        {"gzip -1", -1, {"gzip", "-1", "-c"}},
        {"gzip -6", -1, {"gzip", "-6", "-c"}},
        {"lz4 -1", -1, {"lz4", "-1", "-c"}},
        {"zstd -1", -1, {"zstd", "-1", "-c", "--single-thread"}},
        {"zstd -3", -1, {"zstd", "-3", "-c", "--single-thread"}},
        {"id 0 none", compress_none, {}},
        {"id 1 huffman", compress_huffman, {}},
        {"id 3 rle", compress_rle, {}},
        {"id 5 lzss", compress_lzss, {}},
        {"id 9 lzp", compress_lzp, {}},
        {"id 11 lzx", compress_lzx, {}},
        {"id 127 zlib", compress_zlib, {}},
        {"strong", compress_strong, {}},
    };
    // In turn, so that what else the machine does hits all of them; the best of the rounds counts.
    constexpr int rounds = 3;
    for (int round = 0; round < rounds; ++round) {
        for (Contender& contender : contenders) {
            Figures now;
            contender.there =
                contender.there && (only < 0 || contender.id == only || contender.words.size() == 3);
            if (!contender.there || (round != 0 && contender.id == compress_strong)) {
                continue;
            }
            if (contender.id >= 0) {
                if (!measureMethod(data, contender.id, &now, why)) {
                    *why = name + ": " + contender.name + ": " + *why;
                    return false;
                }
            } else {
                contender.there = measureProgram(data, contender.words, &now);
            }
            keepBest(&contender.best, now, round);
        }
    }
    const auto bytes = static_cast<double>(data.size());
    printf("%s, %zu bytes\n", name.c_str(), data.size());
    printf("  %-14s %12s %8s %12s %12s\n", "", "bytes", "ratio", "pack MB/s", "unpack MB/s");
    for (const Contender& contender : contenders) {
        if (contender.there) {
            const Figures& best = contender.best;
            printf("  %-14s %12llu %7.2f%% %12.1f %12.1f\n", contender.name,
                   static_cast<unsigned long long>(best.size),
                   bytes > 0 ? 100.0 * static_cast<double>(best.size) / bytes : 0.0, bytes / 1e6 / best.pack,
                   bytes / 1e6 / best.unpack);
        }
    }
    return true;
}

}  // namespace

bool measureFiles(const std::vector<std::string>& files, int only, std::string* why) {
    if (files.empty()) {
        *why = "-b needs files";
        return false;
    }
    for (const std::string& name : files) {
        if (!measureFile(name, only, why)) {
            return false;
        }
        fflush(stdout);
    }
    return true;
}
