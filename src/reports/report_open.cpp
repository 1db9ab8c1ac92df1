#include "reports/report_open.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "identity/rights.h"
#include "identity/user_files.h"
#include "log/log.h"

namespace {

constexpr char shell_command[] = "<AGENTSHELL>";

report_shell run_shell = nullptr;

bool asks_for_shell(const EX_PCX* pcx, const MSG_TYPE_REP_GET& get) {
    return run_shell != nullptr && (pcx->pcx_flag & PCX_FLAG_AGENTSHELL) != 0 &&
           get_text(get.filename).starts_with(shell_command);
}

int open_failure(report_source* source, const char* step, int error_number, const std::string& text) {
    source->number = number_report_open_failed;
    source->insert = source->file + "(" + step + ")|" + std::to_string(error_number) + "|" + text + "|";
    return -1;
}

int find_file(EX_PCX* pcx, const MSG_TYPE_REP_GET& get, report_source* source, my_passwd_unlimited* passwd) {
    source->file = get_text(get.filename);
    source->user = get_text(get.logininfo);
    source->with_login = !source->user.empty();
    char path[qx_path_size];
    if (!source->with_login) {
        if (GetPfad(pcx->pcx_WorkFolder, source->file.c_str(), path, sizeof path) != 0) {
            return open_failure(source, "GetPfad()", errno, error_text(errno));
        }
        source->file = path;
        return 0;
    }
    qx7_error error;
    if (!GetPwdNameStruct(source->user.c_str(), passwd, &error)) {
        source->number = error.qx_msgnr;
        source->insert = error.qx_msgInsert;
        return -1;
    }
    passwd->pw_passwd.clear();
    if (GetFilePfad(source->file.c_str(), passwd->pw_dir, path, sizeof path) != 0) {
        source->number = number_file_call;
        source->insert = call_insert("GetFilePfad()", source->file, errno);
        return -1;
    }
    source->file = path;
    return 0;
}

// A command of the service console: what it shows stands in a file of the agent's own, which goes once it was
// sent. Nobody's login counts for it.
int find_shell_output(EX_PCX* pcx, MSG_TYPE_REP_GET* get, report_source* source) {
    const std::string request(get_text(get->filename).substr(strlen(shell_command)));
    char number[8];
    Zudnst_LongToB26(static_cast<uint32_t>(get->ah_idnr), number);
    source->file = std::string(pcx->pcx_TmpFolder) + "/S_" + number + ".txt";
    get->erase = '1';
    // Without output there is no file, whatever a stranger has laid there.
    errno = ENOENT;
    if (run_shell(source->file.c_str(), request.c_str()) != 0) {
        return open_failure(source, "FileFOpen()", errno, error_text(errno));
    }
    return 0;
}

void set_code_table(EX_PCX* pcx, REP_Area* area, message_view view, int32_t dist, int32_t length) {
    const auto code = view_data(view, dist, length);
    if (code.size() == code_table_message_size) {
        SetCodeTab(area->cCodeTab, code.data());
    } else {
        memcpy(area->cCodeTab, GetDefaultCode(pcx).inverse, sizeof area->cCodeTab);
    }
    area->translate = memcmp(area->cCodeTab, identity_code_tables.inverse, sizeof area->cCodeTab) != 0;
}

}  // namespace

void REP_set_shell(report_shell shell) {
    run_shell = shell;
}

int find_source(EX_PCX* pcx, MSG_TYPE_REP_GET* get, report_source* source, my_passwd_unlimited* passwd) {
    return asks_for_shell(pcx, *get) ? find_shell_output(pcx, get, source)
                                     : find_file(pcx, *get, source, passwd);
}

int open_source(EX_PCX* pcx, report_source* source, const my_passwd_unlimited& passwd, qx_descriptor* out) {
    std::string text;
    const char* reader = source->with_login ? source->user.c_str() : pcx->pcx_runUserName;
    errno = 0;
    if (ReadFileAuthority(reader, source->file.c_str(), source->with_login ? 1 : 0,
                          source->with_login ? &passwd : nullptr, &text) != 1) {
        return open_failure(source, "ReadFileAuthority()", errno, text);
    }
    int fd;
    qx7_error error;
    if (source->with_login) {
        fd = Open_ReadEffUser(source->user.c_str(), source->file.c_str(), &error);
        errno = error.qx_errno;
    } else {
        fd = open_read_on_order(source->file.c_str());
    }
    if (fd < 0) {
        return open_failure(source, "FileFOpen()", errno, error_text(errno));
    }
    out->reset(fd);
    return 0;
}

std::unique_ptr<REP_Area> make_area(EX_PCX* pcx, const MSG_TYPE_REP_GET& get, message_view view,
                                    const report_source& source, const ccm_addr_t& from) {
    auto area = std::make_unique<REP_Area>();
    memcpy(area->rep_ID, report_eye_catcher, sizeof area->rep_ID);
    area->iRepGet_ah_idnr = get.ah_idnr;
    area->rep_ah_idnr = get.rep_ah_idnr;
    area->cFile = source.file;
    area->erase_user = source.with_login ? source.user : "";
    area->i4Blksize = std::min(std::max(get.blksize, report_block_min), report_block_max);
    area->cErase = get.erase;
    put_text(area->RepGet_bAddr, ccm_name_server);
    put_text(area->RepGet_bName, report_server_module);
    area->RepGet_bAcv = static_cast<uint32_t>(from.src_acv);
    area->RepEnd_bName = from.src_name;
    area->lMaxRecords = get.maxrecords;
    area->lMaxBlk = get.maxblk;
    set_code_table(pcx, area.get(), view, get.code_dist, get.code_len);
    area->cMatch = view_text(view, get.match_dist, get.match_len);
    if (area->cMatch == "*") {
        area->cMatch.clear();
    }
    for (char& c : area->cMatch) {
        c = ToUpperCase(c);
    }
    area->last_use = alarm_now();
    return area;
}
