// From the INI file to the program context: every setting of the agent is read here or by the module that
// owns it. Runs on the main thread before the network thread exists; afterwards the values are only read.
#pragma once

#include <cstddef>
#include <cstdio>

struct EX_PCX;
struct qx7_error;

// Allocates the context, makes it reachable through `GlbPcx` and fills everything that needs neither trace
// nor log. Null when there is no memory; otherwise `error` tells.
EX_PCX* PcxMalloc(const char* ini, qx7_error* error);

// Path, name and folder of the program, and the host's name, into the context.
void settings_program(EX_PCX* pcx, const char* program_path);

// Builds the context from the INI file in the fixed order of its steps: names, message library, trace, log,
// directories, identity, modules. Null only when the context could not be allocated or the trace not be
// opened; every other failure returns the context with `error` filled, and the caller ends through
// `Close_All`.
EX_PCX* PcxInit(const char* ini, const char* program_path, qx7_error* error);

// One line for the operator about a failed PcxInit: which setting, what is wrong with it, what to do.
void settings_explain(const EX_PCX* pcx, const qx7_error& error, FILE* out);

// A number with an optional suffix "K" (times 2^10) or "M" (times 2^20), in any case. Negative text and
// garbage are 0; what does not fit an int is the largest int.
int settings_size_value(const char* text);
// The size of one block of a legacy transfer: "K" suffix, 32256 for everything outside 4096 to 32256.
int settings_ft_message_size(const char* text);
// `ft_compress_strong`: a suffix "K" divides by 1024, a suffix "M" is dropped.
int settings_compress_size(const char* text);
// The two letters of a language setting such as "(E,D)"; 'E' and 'D' where the text has none.
void settings_languages(const char* text, char* main_language, char* sub_language);
// `TCP/IP/port`: a port, or address, ":" and port (an IPv6 address stands in brackets). `address` is empty
// for the first form. Result: the port, 0 when there is none or it is no port.
int settings_listener_port(const char* text, char* address, size_t size);

// The check that `GLOBAL/login_check` asks for where the server lets jobs, transfers or events run without a
// login.
int ReadLoginCheck(EX_PCX* pcx);
// Largest frame in bytes.
int SetMaxMsgSize(EX_PCX* pcx);
// Supplementary groups of the agent's own process into the context.
int GetGroupsForAgent(EX_PCX* pcx);

// Log the settings at start: INI file, context, system variables, job module.
void LOG_IniFile(EX_PCX* pcx);
void LOG_Pcx(EX_PCX* pcx);
void LOG_Varex(EX_PCX* pcx);
void LOG_Jpex(EX_PCX* pcx);
