// The frame of an input for targets that hand several messages to the agent, and what those about jobs share.
#pragma once

#include <algorithm>

#include "agent_side.h"
#include "jobs/job_table.h"

inline constexpr int process_of_nobody = 1 << 23;  // above the largest that there can be

// Runs one input of at least `least` bytes between fuzz_begin and fuzz_end; for the target to return.
template <typename Run>
int fuzz_input(const uint8_t* data, size_t size, size_t least, Run run) {
    if (size < least) {
        return 0;
    }
    byte_source source(data, size);
    fuzz_begin();
    run(&source);
    fuzz_end();
    return 0;
}

// As many steps as the source has bytes for, `most` at most.
template <typename Step>
void fuzz_steps(byte_source* source, int most, Step step) {
    for (int i = 0; i < most && source->left() > 0; ++i) {
        step(source);
    }
}

// A preset: the number of the job, whatever the message.
inline void number_only(message_bytes* message) {
    const std::string type(reinterpret_cast<const char*>(message->data()), 8);
    set_number(message, type.c_str(), "ah_idnr", fuzz_run);
}

inline size_t answer_count(const char* type) {
    const std::vector<std::string> answers = fuzz_answers();
    return static_cast<size_t>(std::count(answers.begin(), answers.end(), type));
}

// `only_set`: those of jobs that have one.
inline void make_alarms_due(bool only_set) {
    for (JP_AREA* job = Next_JEntry(0, 0); job != nullptr;
         job = Next_JEntry(job->JP_jobNr, job->JP_Mandant)) {
        job->JP_alrmTime = only_set && job->JP_alrmTime == 0 ? 0 : 1;
    }
}
