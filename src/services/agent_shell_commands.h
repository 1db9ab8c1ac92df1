// What the commands of the service console do: showing (agent_shell_show.cpp) and acting
// (agent_shell_act.cpp). Each prints behind its title into the call's file. Main thread.
#pragma once

#include <cstdio>
#include <string>

struct EX_PCX;

struct agent_shell_call {
    EX_PCX* pcx;
    FILE* file;
    const std::string& argument;  // what stands behind the first word, without blanks around it
};
using agent_shell_action = void (*)(const agent_shell_call& call);

void as_show_handle_count(const agent_shell_call& call);
void as_show_openfd_count(const agent_shell_call& call);
void as_show_memory(const agent_shell_call& call);
void as_show_ini(const agent_shell_call& call);
void as_show_version(const agent_shell_call& call);
void as_show_build(const agent_shell_call& call);
void as_show_pid(const agent_shell_call& call);
void as_getJobs(const agent_shell_call& call);
void as_dumpPcxEntry(const agent_shell_call& call);
void as_show_environment(const agent_shell_call& call);
void as_show_trace_options(const agent_shell_call& call);

// "euser=NAME": the process acts as that user until something borrows another identity. For tests.
void as_setAgentParam(const agent_shell_call& call);
void as_trace_flush(const agent_shell_call& call);
void as_destroy_ring_eye_catcher(const agent_shell_call& call);
void as_put_bin(const agent_shell_call& call);
void as_simulate(const agent_shell_call& call);

// Kilobytes of the process's address space, -1 when the system does not tell.
long as_GetLinuxStatm();
