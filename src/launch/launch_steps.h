// The single steps of a launch, for launch.cpp, the child and the tests. Main thread or the child.
#pragma once

#include <signal.h>

#include <array>
#include <string>
#include <string_view>

#include "launch/launch.h"
#include "launch/launch_settings.h"
#include "launch/starter.h"

// ---- Shell

// Path of a shell by its name (a leading '-' does not count): the first executable file along
// STARTCMD/shell_pfad, or PATH. What was found is kept. Empty when there is none.
std::string GetShellPath(EX_PCX* pcx, std::string_view shellName);
// Family letter of a shell's name, and the default option of that family (empty for unknown shells).
char launch_shell_flag(std::string_view sh);
std::string launch_shell_option(char sh_flag);

// ---- Job file

// Text of the job file: "#!  " and the shell, the extra line if there is one, and the JCL's lines, filtered
// by shell and converted by the code table.
std::string launch_job_text(const JOB_START_VAR& startVar, std::string_view extraLine);
// Makes it, with the mode and the user as owner. 0, or -1 with number and insert in Return and rettext.
int CreateJobFile(JOB_START_VAR* startVar, std::string_view extraLine, mode_t mode,
                  const my_passwd_unlimited& passwd);
// A file that holds one command, made like a job file. 0, or -1 with `error`.
int CreateCmdFile(const std::string& name, std::string_view text, mode_t mode,
                  const my_passwd_unlimited& passwd, qx7_error* error);
// Makes the report, empty, and notes which file it is. 0, or -1 with `error`. Nothing for /dev/null.
int launch_make_report(JOB_START_VAR* startVar, mode_t mode, const my_passwd_unlimited& passwd,
                       qx7_error* error);
// Removes job file and report of a start that came to nothing; failures are logged.
void launch_remove_files(const JOB_START_VAR& startVar);

// ---- Child

// Log and trace are forgotten, nothing of the parent is freed, written or closed here.
void atfork_child(EX_PCX* pcx);
// Opens close-on-exec; -1 with errno. Only for /dev/null: a report comes along open.
int FileOpenChild(const char* path, int flags);
// Closes unless it is descriptor 0, 1 or 2.
void FileCloseChild(int fd);
// Default action for all signals, and none is blocked.
void Reset_Signals();
// Own process group, groups and ids of the user, and his home. 0 or a launch_exit with `error`.
int Init_User(const my_passwd_unlimited& passwd, const JOB_START_VAR& startVar, qx7_error* error);
// What the child gives to exec, made by the parent: the job's environment, and the shell's arguments.
void Init_Environment(const my_passwd_unlimited& passwd, JOB_START_VAR* startVar);
void launch_prepare_arguments(JOB_START_VAR* startVar);
// Whether the child opens the PAM session of this handle.
bool launch_session_in_child(const pam_handle_t* handle);
// The job's environment made from another one, as "NAME=value".
std::vector<std::string> launch_environment(char* const* from, const my_passwd_unlimited& passwd,
                                            const std::string& path_sh);
// The option of a command: it must hold a 'c'.
std::string launch_command_option(std::string option);
// The job file as the argument of shell `sh`. With a 'c' in the option it is a command: exec, so that the
// shell becomes the script, and the name, quoted where the shell would read more than a name.
std::string launch_file_argument(const std::string& jobFile, std::string_view sh, const std::string& option);
void launch_load_texts_once(EX_PCX* pcx);
// The lines of a child's failures, by the steps of the starter: errno and reason are left to the child, and
// the byte 3 stands for the name of the output or of the home.
const std::array<std::string, starter_step_count>& launch_failure_lines();

// ---- Batch start

// Replaces `key` by `value` wherever it stands, whatever its case, in one pass.
std::string Change_Key(std::string_view text, std::string_view key, std::string_view value);
// True for a text that a shell takes as one plain word: letters, digits and _ . / + - @ % : , =
bool launch_plain_word(std::string_view text);

// ---- Trace only

void Put_PInfo(const my_passwd_unlimited& passwd, const char* traceHead, char* const* envp);
void printTextFile(const char* name);
void Check_Signals(const sigset_t& set);
