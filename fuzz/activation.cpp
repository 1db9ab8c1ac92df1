// The life of a job as the server can shape it: EXAKTJ with its rest items, JCL and tables, BIN_DATA for what
// it waits for, then queries, cancels and checks in any order. The first byte chooses the start type, whether
// a process can be had, and whether passwords are checked. Every activation is answered once, or its job
// waits.
#include "jobs/activation.h"

#include <cstdlib>

#include "agent_side.h"
#include "identity/password_check.h"
#include "input.h"
#include "jobs/job_context.h"
#include "jobs/job_table.h"
#include "jobs/supervision.h"
#include "launch/launch_settings.h"
#include "messages/records_common.h"

namespace {

std::string work_file(const char* name) {
    return sandbox().folder + "/work/" + name;
}

void preset_activation(message_bytes* message) {
    constexpr char type[] = "EXAKTJ  ";
    set_number(message, type, "ah_idnr", fuzz_run);
    set_field(message, type, "name", "JOB");
    set_field(message, type, "jobfile", work_file("job"));
    set_field(message, type, "jobreport", work_file("report"));
    set_field(message, type, "logininfo", sandbox_user);
    add_data(message, type, "jcl", "echo\r\n");
}

// Paths of the caches and one row, whose resource the job waits for.
void preset_waiting(message_bytes* message) {
    constexpr char type[] = "EXAKTJ  ";
    preset_activation(message);
    const std::string cache = sandbox().folder + "/cache/";
    MSG_TYPE_BINPATHS paths{};
    put_text(paths.task_cache_path, cache + "t");
    put_text(paths.client_cache_path, cache + "c");
    add_data(message, type, "binpaths",
             std::string_view(reinterpret_cast<const char*>(&paths), sizeof paths));
    MSG_TYPE_BINTAB row{};
    put_text(row.object_name, "O");
    put_text(row.resource_name, "R");
    put_text(row.file_name, "file");
    row.mod_date = {2020, 1, 1, 0, 0, 0, 0};
    row.cache_type = RESOURCE_CLIENT;
    add_data(message, type, "bintab", std::string_view(reinterpret_cast<const char*>(&row), sizeof row));
}

void preset_data(message_bytes* message) {
    constexpr char type[] = "BIN_DATA";
    set_number(message, type, "ah_idnr", fuzz_run);
    set_field(message, type, "object_name", "O");
    set_field(message, type, "name", "R");
}

constexpr fuzz_order orders[] = {
    {"JPAKTJ_R", "EXAKTJ  ", preset_activation}, {"JPAKTJ_R", "EXAKTJ  ", preset_waiting},
    {"BINDATA", "BIN_DATA", preset_data},        {"JPAKTJ_R", "JOB_CAN ", number_only},
    {"JPAKTJ_R", "JOB_INF ", number_only},       {"JPAKTJ_R", "EXSTAJQU", number_only},
    {"JPAKTJ_R", "JOB_DEL ", number_only},
};
constexpr size_t order_count = sizeof orders / sizeof orders[0];
constexpr uint8_t check_jobs = order_count;       // not a message: the periodic check, every alarm due
constexpr uint8_t end_process = order_count + 1;  // not a message: the process ends

void set_up(uint8_t choice) {
    EX_PCX& pcx = fuzz_agent();
    JPPCX* jobs = job_context();
    launch_context()->JobStartType = "FVBF"[choice & 3];
    sandbox().next_process = (choice & 4) != 0 ? 0 : process_of_nobody;
    pcx.pcx_JobPwCheck = (choice & 8) != 0 ? 1 : 0;
    pcx.pcx_hardened = (choice & 16) != 0 ? 1 : 0;
    jobs->JP_ReadUser = (choice & 32) != 0 ? JOB_LISTS_ALWAYS : JOB_LISTS_AT_START;
    pcx.upgrade_ah_idnr = (choice & 0xc0) == 0xc0 ? 9 : 0;
}

size_t answers_told() {
    return answer_count("EXAKTJQU") + answer_count("QUITT   ");
}

void activate(const message_bytes& message) {
    const size_t before = answers_told();
    const int jobs = jpGetJobCount();
    if (!fuzz_give("JPAKTJ_R", message)) {
        return;
    }
    const size_t told = answers_told() - before;
    const bool entered = jpGetJobCount() > jobs;
    if (told > 1 || (told == 0 && !entered)) {
        abort();
    }
}

void step(byte_source* source) {
    const auto choice = static_cast<uint8_t>(source->byte() % (end_process + 1));
    EX_PCX& pcx = fuzz_agent();
    if (choice == check_jobs) {
        make_alarms_due(true);
        process_jobchk(&pcx, nullptr, 0);
    } else if (choice == end_process) {
        process_job_sigchild(&pcx, process_of_nobody, source->byte(), source->byte() << 8);
    } else {
        const message_bytes message = fuzz_message(source, orders[choice]);
        if (choice < 2) {
            activate(message);
        } else {
            fuzz_give(orders[choice].module, message);
        }
    }
}

void run(byte_source* source) {
    set_up(source->byte());
    activate(fuzz_message(source, orders[source->byte() & 1]));
    fuzz_steps(source, 4, step);
    Reset_JTab();
    *resource_context() = {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_input(data, size, 2, run);
}
