// The rest items of an activation, the job file and the report file.
#include <cerrno>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/obstacles.h"
#include "base/paths.h"
#include "base/text.h"
#include "identity/own_place.h"
#include "identity/user_files.h"
#include "launch/job_files.h"
#include "launch/launch_steps.h"
#include "log/log.h"

namespace {

constexpr std::string_view filter_mark = "##QX7[";
constexpr std::string_view line_end = "\r\n";

std::string_view without_dash(std::string_view sh) {
    return sh.starts_with('-') ? sh.substr(1) : sh;
}

// A line for one shell only: false when it is for another one, else the mark is cut away.
bool pass_filter(std::string_view sh, std::string_view* line) {
    if (!line->starts_with(filter_mark)) {
        return true;
    }
    const size_t close = line->find(']', filter_mark.size());
    if (close == std::string_view::npos) {
        return true;
    }
    if (line->substr(filter_mark.size(), close - filter_mark.size()) != without_dash(sh)) {
        return false;
    }
    line->remove_prefix(close + 1);
    return true;
}

void append_line(const JOB_START_VAR& startVar, std::string_view line, std::string* text) {
    if (!pass_filter(startVar.sh, &line)) {
        return;
    }
    const size_t begin = text->size();
    text->append(line);
    if (startVar.cCodeTab != nullptr) {
        AreaConv(text->data() + begin, line.size(), startVar.cCodeTab);
    }
    text->push_back('\n');
}

// The first inserts of 2003041 by the step that failed.
struct step_names {
    const char* create;
    const char* write;
    const char* close;
};
constexpr step_names job_file_steps = {"FileFOpen()", "WriteFwrite()", "FileFClose()"};
constexpr step_names report_steps = {"FileCreate()", "FileCreate()", "FileCreate()"};

const char* step_name(const step_names& names, file_step step) {
    switch (step) {
        case FILE_STEP_WRITE:
            return names.write;
        case FILE_STEP_CLOSE:
            return names.close;
        case FILE_STEP_CHMOD:
            return step_chmod;
        case FILE_STEP_CHOWN:
            return step_chown;
        default:
            return names.create;
    }
}

int file_failure(const step_names& names, const std::string& file, const file_result& result,
                 qx7_error* error) {
    file_error(error, step_name(names, result.failed), file, result.error_number);
    return -1;
}

file_result make_file(const std::string& file, std::string_view content, mode_t mode,
                      const my_passwd_unlimited& user, qx_descriptor* kept) {
    return make_file_for(file.c_str(), content, mode, user.pw_name, user.pw_uid, user.pw_gid, kept);
}

// A pipe or directory of somebody else's under the name of a job's file must not stop the job.
file_result make_file_anyhow(const std::string& file, std::string_view content, mode_t mode,
                             const my_passwd_unlimited& user, qx_descriptor* kept = nullptr) {
    file_result result = make_file(file, content, mode, user, kept);
    const bool taken = result.failed == FILE_STEP_CREATE && result.error_number == EEXIST;
    if (!taken || GlbPcx == nullptr || !job_file_is_ours(GlbPcx, file)) {
        return result;
    }
    const std::string made = std::string(path_folder_name(file)) + "/" + hidden_name();
    result = make_file(made, content, mode, user, kept);
    if (result.failed == FILE_STEP_NONE && take_place_of_path(made, file) != 0) {
        result.failed = FILE_STEP_CREATE;
        result.error_number = errno;
        (void)remove_on_order(made.c_str());  // the first failure is the one to tell
    }
    return result;
}

void remove_file(const std::string& file) {
    if (remove_on_order(file.c_str()) != 0 && errno != ENOENT) {
        __log(number_file_call, "%s", call_insert("FileRemove", file, errno).c_str());
    }
}

}  // namespace

std::string launch_job_text(const JOB_START_VAR& startVar, std::string_view extraLine) {
    std::string text;
    text.reserve(startVar.jcl.size() + startVar.path_sh.size() + extraLine.size() + 16);
    // Two blanks: the line must stay as it is, tools that look at job files know it so.
    text.append("#!  ").append(startVar.path_sh).push_back('\n');
    if (!extraLine.empty()) {
        text.append(extraLine).push_back('\n');
    }
    std::string_view rest = startVar.jcl;
    for (size_t end; (end = rest.find(line_end)) != std::string_view::npos;) {
        append_line(startVar, rest.substr(0, end), &text);
        rest.remove_prefix(end + line_end.size());
    }
    if (rest.ends_with('\r')) {
        rest.remove_suffix(1);
        append_line(startVar, rest, &text);
    } else if (!rest.empty()) {
        append_line(startVar, rest, &text);
    }
    return text;
}

int CreateJobFile(JOB_START_VAR* startVar, std::string_view extraLine, mode_t mode,
                  const my_passwd_unlimited& passwd) {
    const std::string text = launch_job_text(*startVar, extraLine);
    const file_result result = make_file_anyhow(startVar->jobFile, text, mode, passwd);
    if (result.failed == FILE_STEP_NONE) {
        return 0;
    }
    qx7_error error;
    file_failure(job_file_steps, startVar->jobFile, result, &error);
    startVar->Return = error.qx_msgnr;
    startVar->rettext = error.qx_msgInsert;
    errno = result.error_number;
    return -1;
}

int CreateCmdFile(const std::string& name, std::string_view text, mode_t mode,
                  const my_passwd_unlimited& passwd, qx7_error* error) {
    qx_error_clear(error);
    const file_result result = make_file_anyhow(name, text, mode, passwd);
    return result.failed == FILE_STEP_NONE ? 0 : file_failure(job_file_steps, name, result, error);
}

int launch_make_report(JOB_START_VAR* startVar, mode_t mode, const my_passwd_unlimited& passwd,
                       qx7_error* error) {
    if (startVar->jobReport == launch_no_report) {
        return 0;
    }
    const file_result result = make_file_anyhow(startVar->jobReport, {}, mode, passwd, &startVar->report);
    startVar->report_device = result.device;
    startVar->report_inode = result.inode;
    return result.failed == FILE_STEP_NONE ? 0
                                           : file_failure(report_steps, startVar->jobReport, result, error);
}

void launch_remove_files(const JOB_START_VAR& startVar) {
    if (startVar.BatFlag == BATCH_FILE) {
        remove_file(startVar.jobFile);
    }
    if (startVar.jobReport != launch_no_report) {
        remove_file(startVar.jobReport);
    }
}
