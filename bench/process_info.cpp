// How a status report grows with the jobs: the processes of one second are read once for all entries. The
// peer is what one pass over /proc costs alone.
#include "jobs/process_info.h"

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/context.h"
#include "jobs/job_table.h"
#include "jobs/supervision.h"

namespace {

EX_PCX pcx;
std::vector<pid_t> children;

// Sleeping processes, each one a job of the table.
void have_jobs(size_t count) {
    GlbPcx = &pcx;
    pcx.pcx_ProcInfo = 1;
    while (children.size() < count) {
        const pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            pause();
            _exit(0);
        }
        if (pid < 0) {
            perror("fork");
            exit(1);
        }
        children.push_back(pid);
    }
    Reset_JTab();
    for (size_t i = 0; i < count; ++i) {
        JP_AREA* job = Create_JEntry(static_cast<int>(i + 1), 1);
        job_table_set_pid(job, static_cast<uint32_t>(children[i]));
        job->JP_RstInfo = JOB_RECORD_SENT;
    }
}

void end_jobs() {
    Reset_JTab();
    for (const pid_t pid : children) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    children.clear();
}

// Opens, reads and closes every stat file, and does nothing with it.
void bare_pass() {
    DIR* folder = opendir("/proc");
    char line[2048];
    while (const dirent* entry = readdir(folder)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
            continue;
        }
        const std::string name = std::string(entry->d_name) + "/stat";
        const int file = openat(dirfd(folder), name.c_str(), O_RDONLY | O_CLOEXEC);
        if (file >= 0) {
            benchmark::DoNotOptimize(read(file, line, sizeof line));
            close(file);
        }
    }
    closedir(folder);
}

void bare_pass_over_proc(benchmark::State& state) {
    have_jobs(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        bare_pass();
    }
}
BENCHMARK(bare_pass_over_proc)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

// The status of one job among many, as a check of all of them makes it.
void one_status_of(benchmark::State& state) {
    have_jobs(static_cast<size_t>(state.range(0)));
    JP_AREA* job = Next_JEntry(INT_MIN, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(job_build_exstaj(&pcx, job, true));
        JP_AREA* next = Next_JEntry(job->JP_jobNr, job->JP_Mandant);
        job = next == nullptr ? Next_JEntry(INT_MIN, 0) : next;
    }
}
BENCHMARK(one_status_of)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

// The first status of a second, which makes the pass.
void first_status_of_a_second(benchmark::State& state) {
    have_jobs(static_cast<size_t>(state.range(0)));
    JP_AREA* job = Next_JEntry(INT_MIN, 0);
    for (auto _ : state) {
        process_info_forget();
        benchmark::DoNotOptimize(job_build_exstaj(&pcx, job, true));
    }
}
BENCHMARK(first_status_of_a_second)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

template <class Work>
double seconds_for(int rounds, Work work) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        work();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / rounds;
}

void print_ratio() {
    have_jobs(1000);
    const double pass = seconds_for(20, bare_pass);
    const double all = seconds_for(5, [] {
        process_info_forget();
        for (JP_AREA* job = Next_JEntry(INT_MIN, 0); job != nullptr;
             job = Next_JEntry(job->JP_jobNr, job->JP_Mandant)) {
            benchmark::DoNotOptimize(job_build_exstaj(&pcx, job, true));
        }
    });
    printf(
        "1,000 jobs: one bare pass over /proc %.1f ms, the status of all jobs %.1f ms, of one job %.1f us;"
        " a status costs %.4f of a pass\n",
        pass * 1e3, all * 1e3, all * 1e3, all / 1000 / pass);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    print_ratio();
    end_jobs();
    return 0;
}
