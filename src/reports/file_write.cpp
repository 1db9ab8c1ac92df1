// PRCWRITE: the server makes or extends a user's text file.
#include <cerrno>
#include <cstring>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "channels/replies.h"
#include "identity/accounts.h"
#include "identity/password_check.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "reports/reports.h"

namespace {

enum file_write_mode : char { WRITE_APPEND = 'A', WRITE_OVERWRITE = 'O', WRITE_NEW_ONLY = 'C' };

constexpr size_t file_name_limit = 1024;
constexpr mode_t new_folder_mode = 0755;

struct file_order {
    MSG_TYPE_PRCWRITE record;
    std::string user;
    std::string file;
    std::string_view text;
    unsigned char code[256];
    // the answer
    int number = 0;
    std::string insert;
};

int fail(file_order* order, int number, std::string insert) {
    order->number = number;
    order->insert = std::move(insert);
    return -1;
}

std::string key_text(const file_order* order) {
    return std::to_string(order->record.ah_idnr) + "|";
}

int check_user(EX_PCX* pcx, file_order* order, message_view view, my_passwd_unlimited* passwd) {
    if (order->user.empty()) {
        return fail(order, number_file_write_user, key_text(order) + "noname|user not defined|");
    }
    qx7_error error;
    if (!GetPwdNameStruct(order->user.c_str(), passwd, &error)) {
        const std::string reason =
            error.qx_errno == ENOENT || error.qx_errno == 0 ? "user not found" : error_text(error.qx_errno);
        return fail(order, number_file_write_user, key_text(order) + order->user + "|" + reason + "|");
    }
    passwd->pw_passwd.clear();
    if (pcx->pcx_JobPwCheck == 1) {
        std::string text;
        const auto password = view_data(view, order->record.pwd_dist, order->record.pwd_len);
        if (PasswordCheck(1, order->record.ah_idnr, password, order->user.c_str(), &text, nullptr) !=
            PASSWORD_ACCEPTED) {
            return fail(order, number_file_write_user, key_text(order) + order->user + "|" + text + "|");
        }
    }
    return 0;
}

// Under the user's identity: what is there, and whether the order allows to go on.
int prepare_place(file_order* order) {
    qx7_error error;
    const int fd = Open_ReadEffUser(order->user.c_str(), order->file.c_str(), &error);
    const bool missing = fd < 0 && error.qx_errno == ENOENT;
    if (fd >= 0) {
        FileClose(fd);
    }
    // What may not be looked at is told by the opening.
    const bool exists = fd >= 0 || (!missing && error.qx_errno != EACCES && error.qx_errno != ENOTDIR);
    if (exists && order->record.mode == WRITE_NEW_ONLY) {
        return fail(order, number_file_write_exists, key_text(order) + order->file + "|");
    }
    if (!missing) {
        return 0;
    }
    const std::string folder{path_folder_name(order->file)};
    for (size_t end = folder.find('/', 1);; end = folder.find('/', end + 1)) {
        const std::string part = folder.substr(0, end);
        // A folder that can't be made shows when the file is opened; one that exists is what is wanted.
        if (!part.empty() &&
            createDir_EffUser(order->user.c_str(), part.c_str(), new_folder_mode, &error) != 0 &&
            error.qx_errno != EEXIST && end == std::string::npos) {
            return fail(order, number_file_write_open,
                        key_text(order) + order->file + "|" + error_text(error.qx_errno) + "|");
        }
        if (end == std::string::npos) {
            return 0;
        }
    }
}

int write_line(FILE* stream, std::string_view line, file_order* order) {
    std::string converted{line};
    AreaConv(converted.data(), converted.size(), order->code);
    qx7_error error;
    if (FcbWriteText(stream, converted.data(), static_cast<int>(converted.size()), &error) != 0) {
        return fail(order, number_file_write_failed, key_text(order) + order->file + "|");
    }
    return 0;
}

int write_text(FILE* stream, file_order* order) {
    std::string_view text = order->text;
    while (!text.empty()) {
        const size_t end = text.find("\r\n");
        std::string_view line = text.substr(0, end);
        if (end == std::string_view::npos) {
            if (line.ends_with('\r')) {
                line.remove_suffix(1);
            }
            return write_line(stream, line, order);
        }
        if (write_line(stream, line, order) != 0) {
            return -1;
        }
        text.remove_prefix(end + 2);
    }
    return 0;
}

int write_file(file_order* order) {
    qx7_error error;
    const char* mode = order->record.mode == WRITE_APPEND ? "a"
                       : order->record.mode == WRITE_NEW_ONLY
                           ? "wx"  // whoever was quicker is not overwritten
                           : "w";
    FILE* stream = StreamOpen_EffUser(order->user.c_str(), order->file.c_str(), mode, &error);
    if (stream == nullptr && error.qx_errno == EEXIST) {
        return fail(order, number_file_write_exists, key_text(order) + order->file + "|");
    }
    if (stream == nullptr) {
        return fail(order, number_file_write_open,
                    key_text(order) + order->file + "|" + error_text(error.qx_errno) + "|");
    }
    const int result = write_text(stream, order);
    if (StreamClose_EffUser(order->user.c_str(), stream, &error) != 0 && result == 0) {
        return fail(order, number_file_write_failed, key_text(order) + order->file + "|");
    }
    return result;
}

int carry_out(EX_PCX* pcx, file_order* order, message_view view) {
    my_passwd_unlimited passwd;
    if (check_user(pcx, order, view, &passwd) != 0) {
        return -1;
    }
    if (order->file.empty() || order->file.front() != '/') {
        order->file = std::string{passwd.pw_dir} + "/" + order->file;
    }
    __log(number_file_write_order, "%d|%s|", order->record.ah_idnr, order->file.c_str());
    return prepare_place(order) != 0 ? -1 : write_file(order);
}

}  // namespace

int process_iprcwrite(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const message_view view = view_of(msg);
    file_order order{};
    order.record = view_record<MSG_TYPE_PRCWRITE>(view);
    const auto code = view_data(view, order.record.code_dist, order.record.code_len);
    if (code.size() == code_table_message_size) {
        SetCodeTab(order.code, code.data());
    } else {
        memcpy(order.code, GetDefaultCode(pcx).inverse, sizeof order.code);
    }
    order.file = view_text(view, order.record.file_dist, order.record.file_len).substr(0, file_name_limit);
    order.user = get_text(order.record.logininfo);
    order.text = view_text(view, order.record.text_dist, order.record.text_len);
    __log(number_file_write_order, "%d|%s|", order.record.ah_idnr, order.file.c_str());

    if (carry_out(pcx, &order, view) == 0) {
        __log(number_file_write_done, "%d|%s|", order.record.ah_idnr, order.file.c_str());
    } else {
        __log(order.number, "%s", order.insert.c_str());
        __log(number_file_write_not_done, "%d|%s|", order.record.ah_idnr, order.file.c_str());
    }
    const QX_HEADM head = view_head(view);
    return send_quitt_extended(pcx, 0, msg->addr.src_name, "", msg->addr.src_acv, "PRCWRITE", head.i2Mandant,
                               static_cast<int>(head.i4UsrIdNr), order.number, order.insert.c_str(),
                               order.number == 0 ? "OK" : "NK", nullptr, 0);
}
