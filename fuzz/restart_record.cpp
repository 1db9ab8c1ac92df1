// JOB_INF: the record that the agent once wrote comes back from the server, with whatever stands in it, and a
// report that the job wrote. The first byte chooses how much of the record is the fuzzer's: fields, or all of
// it. Every query is answered once; afterwards the job is asked for, checked, cancelled and deleted.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "agent_side.h"
#include "input.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/process_info.h"
#include "jobs/supervision.h"

namespace {

std::string report_file() {
    return sandbox().folder + "/out/report";
}

template <size_t size>
void put(char (&field)[size], std::string_view text) {
    memcpy(field, text.data(), std::min(size, text.size()));
}

// A record whose places are right and whose contents are the source's.
std::string record_of(byte_source* source) {
    const pid_t processes[] = {0, 1, getpid(), -1, getppid(), process_of_nobody};
    JP_item item{};
    const uint8_t choice = source->byte();
    item.JI_pgid = processes[(choice & 7) % 6];
    procArea_t process;
    if ((choice & 8) != 0 && GetLinuxProcEntry(item.JI_pgid, &process)) {
        item.JI_jStart = process.pa_start;
    }
    put(item.JI_jFile, sandbox().folder + "/work/job");
    put(item.JI_jReport, (choice & 16) != 0 ? std::string(source->text()) : report_file());
    put(item.JI_oName, source->text());
    put(item.JI_task_cache_path, (choice & 32) != 0
                                     ? sandbox().folder + "/cache/" + std::string(source->text())
                                     : std::string(source->text()));
    put(item.JI_userName, (choice & 64) != 0 ? std::string(source->text()) : std::string(sandbox_user));
    item.JI_count = static_cast<int8_t>(source->byte());
    const std::string_view names = source->text();
    return std::string(reinterpret_cast<const char*>(&item), sizeof item) + std::string(names) +
           std::string((choice & 128) != 0 ? 0 : 4, '\0');
}

constexpr fuzz_order query = {"JPAKTJ_R", "JOB_INF ", number_only};
constexpr fuzz_order orders[] = {
    query,
    {"JPAKTJ_R", "JOB_CAN ", number_only},
    {"JPAKTJ_R", "EXSTAJQU", number_only},
    {"JPAKTJ_R", "JOB_DEL ", number_only},
};

void ask(const message_bytes& message) {
    const size_t before = answer_count("QUITT   ");
    if (fuzz_give("JPAKTJ_R", message) && answer_count("QUITT   ") != before + 1) {
        abort();
    }
}

void step(byte_source* source) {
    const uint8_t choice = source->byte() % 5;
    if (choice == 4) {
        make_alarms_due(false);
        process_jobchk(&fuzz_agent(), nullptr, 0);
    } else if (choice == 0) {
        ask(fuzz_message(source, query));
    } else {
        fuzz_give("JPAKTJ_R", fuzz_message(source, orders[choice]));
    }
}

void run(byte_source* source) {
    const uint8_t how = source->byte();
    sandbox_open();
    std::ofstream(report_file(), std::ios::binary) << source->text();
    sandbox_close();
    const std::string record((how & 1) != 0 ? std::string(source->text()) : record_of(source));
    message_bytes message = fuzz_message(source, query);
    if ((how & 2) == 0) {
        add_data(&message, "JOB_INF ", "restart", record);
    }
    ask(message);
    fuzz_steps(source, 4, step);
    Reset_JTab();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_input(data, size, 4, run);
}
