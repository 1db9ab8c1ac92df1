// For whom an order is carried out.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "identity/password_check.h"
#include "identity/switch_user.h"
#include "log/log.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/order_parts.h"

namespace {

constexpr uint32_t no_id = UINT32_MAX;

// The password of the own side: the variable field, else the fixed one, which is blank or zero without one.
std::span<const unsigned char> password_field(const ftx_order& order) {
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    const bool sender = order.entry->is_sender();
    const int length = sender ? fields.src_pwd_len : fields.dst_pwd_len;
    if (length > 0) {
        return view_data(order.view, sender ? fields.src_pwd_dist : fields.dst_pwd_dist, length);
    }
    const std::span<const unsigned char> fixed =
        sender ? std::span(fields.src_passw) : std::span(fields.dst_passw);
    const bool filled =
        std::any_of(fixed.begin(), fixed.end(), [](unsigned char byte) { return byte != 0 && byte != ' '; });
    return filled ? fixed : std::span<const unsigned char>();
}

int check_login(const ftx_order& order, qx7_error* err) {
    const ftx_entry* ftx = order.entry;
    // The server's word counts as well: it may forbid transfers without a login where the setting does not.
    if (ftx_glb().fgx_PwCheck != 1 && order.pcx->pcx_FtPwCheck == 0) {
        return 0;
    }
    if (ftx->login_name.empty()) {
        return qx_error_set(err, -1, EPERM, number_login_required, "|");
    }
    std::string reason;
    const char* user = ftx->login_name.c_str();
    errno = 0;
    if (PasswordCheck(1, ftx->ftx_transfer_id, password_field(order), user, &reason, nullptr) ==
        PASSWORD_ACCEPTED) {
        return 0;
    }
    const int number = errno;
    __PutLogText("File transfer %d: %s", ftx->ftx_transfer_id, reason.c_str());
    return number == EPERM ? FillMessageOnPermissionError(err, number, "PasswordCheck", user)
                           : FillMessageOnPasswordError(err, number, user);
}

// Kind of what stands under the source's name, as its user sees it. 0 also for what is not there or not shown:
// such a file fails when it is opened, as one of the transfer.
int source_kind(const ftx_entry* ftx, file_kind* kind, qx7_error* err) {
    char path[PATH_MAX];
    *kind = FILE_KIND_NONE;
    if (GetPfad(ftx->home_dir.c_str(), ftx->source_file.c_str(), path, sizeof path) != 0) {
        return 0;
    }
    effective_user as(ftx->login_name.c_str(), err);
    if (!as.ok()) {
        return -1;
    }
    struct stat status;
    if (lstat(path, &status) == 0) {
        *kind = mapFileTypeResult(status.st_mode);
    }
    return as.finish(0, err);
}

}  // namespace

int order_read_user(const ftx_order& order, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    const bool sender = ftx->is_sender();
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    ftx->login_name = sender ? get_text(fields.src_logininfo) : get_text(fields.dst_logininfo);
    ftx->user_name = ftx->login_name.empty() ? field_text(order.pcx->pcx_runUserName) : ftx->login_name;
    ftx->ftx_Temp_File = sender ? '0' : GetFtTempFile();
    ftx->ftx_set_userid = ftx->login_name.empty() ? 0 : 1;
    my_passwd_unlimited account;
    if (!AccountOfUser(ftx->user_name.c_str(), &account, err)) {
        return -1;
    }
    ftx->ftx_uid = account.pw_uid;
    ftx->ftx_gid = account.pw_gid;
    ftx->ftx_pw_uid = ftx->ftx_set_userid != 0 ? account.pw_uid : no_id;
    ftx->ftx_pw_gid = ftx->ftx_set_userid != 0 ? account.pw_gid : no_id;
    ftx->home_dir = account.pw_dir;
    return check_login(order, err);
}

int order_check_source(const ftx_order& order, qx7_error* err) {
    const ftx_entry* ftx = order.entry;
    if (!ftx->is_sender() || ftx->has(FTX_WILDCARD)) {
        return 0;
    }
    file_kind kind = FILE_KIND_NONE;
    if (source_kind(ftx, &kind, err) != 0) {
        return -1;
    }
    int number = 0;
    switch (kind) {
        case FILE_KIND_NONE:
        case FILE_KIND_REGULAR:
        case FILE_KIND_DIRECTORY:
            return 0;
        case FILE_KIND_LINK:
            if (ftx_glb().fgx_Linkfiles) {
                return 0;
            }
            number = number_source_is_link;
            break;
        default:
            number = number_source_unusable;
            break;
    }
    return qx_error_set(err, -1, EINVAL, number, "%i|%s|", ftx->ftx_transfer_id,
                        printable(ftx->source_file).c_str());
}
