// EXREQCMD, what the command leaves in its output, its end, its cancel and its time limit. The first byte
// chooses whether a process can be had and whether passwords are checked. A request is refused at once or
// answered once at the end of its command, if nobody cancelled it.
#include <cstdlib>
#include <fstream>

#include "agent_side.h"
#include "input.h"
#include "jobs/commands.h"
#include "jobs/job_context.h"

namespace {

std::string output_file() {
    return sandbox().folder + "/work/output";
}

void preset_request(message_bytes* message) {
    constexpr char type[] = "EXREQCMD";
    set_number(message, type, "ah_idnr", fuzz_run);
    set_number(message, type, "max_rows", 100);
    set_field(message, type, "jobreport", output_file());
    set_field(message, type, "logininfo", sandbox_user);
    add_data(message, type, "jcl", "echo");
}

constexpr fuzz_order request = {"EXECCMD", "EXREQCMD", preset_request};
constexpr fuzz_order cancel = {"EXECCMD", "EXREQCAN", number_only};

size_t answers_told() {
    return answer_count("EXRESCMD") + answer_count("QUITT   ");
}

void ask(const message_bytes& message) {
    const size_t before = answers_told();
    const int commands = getCommandCount();
    if (fuzz_give(request.module, message) &&
        answers_told() - before + static_cast<size_t>(getCommandCount() - commands) != 1) {
        abort();
    }
}

void end_command(byte_source* source) {
    EX_PCX& pcx = fuzz_agent();
    if (getCommandCount() == 0) {
        return;
    }
    const Cmd_Area& entry = GetCmdGlb()->cmd_firstCMDA.front();
    const bool awaited = entry.cmda_status == COMMAND_RUNNING;
    const size_t before = answers_told();
    const int code = source->byte();
    process_command_sigchild(&pcx, entry.cmda_forkPid, code, code << 8);
    if (answers_told() != before + (awaited ? 1 : 0)) {
        abort();
    }
}

void let_time_pass() {
    EX_PCX& pcx = fuzz_agent();
    for (Cmd_Area& entry : GetCmdGlb()->cmd_firstCMDA) {
        entry.cmda_endTime_t = 1;
    }
    process_cmd_chk(&pcx, nullptr, 0);
}

void step(byte_source* source) {
    switch (source->byte() % 5) {
        case 0:
            std::ofstream(output_file(), std::ios::binary | std::ios::in) << source->text();
            break;
        case 1:
            end_command(source);
            break;
        case 2:
            let_time_pass();
            break;
        case 3:
            fuzz_give(cancel.module, fuzz_message(source, cancel));
            break;
        default:
            ask(fuzz_message(source, request));
    }
}

void run(byte_source* source) {
    EX_PCX& pcx = fuzz_agent();
    const uint8_t choice = source->byte();
    sandbox().next_process = (choice & 1) != 0 ? 0 : process_of_nobody;
    pcx.pcx_JobPwCheck = (choice & 2) != 0 ? 1 : 0;
    pcx.pcx_anonymusUsr = (choice & 4) != 0 ? 'Y' : 'N';
    ask(fuzz_message(source, request));
    fuzz_steps(source, 6, step);
    while (getCommandCount() > 0) {
        removeCommandEntry(&GetCmdGlb()->cmd_firstCMDA.front());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_input(data, size, 3, run);
}
