#include "transfer/legacy/order.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/messages.h"
#include "identity/accounts.h"
#include "identity/password_check.h"
#include "identity/switch_user.h"
#include "messages/records_transfer.h"
#include "transfer/ftx/module.h"
#include "transfer/legacy/messages.h"
#include "transfer/rest_field.h"

namespace {

constexpr int64_t record_length_max = 65535;

char one_of(char letter, std::string_view allowed, char otherwise) {
    return letter != '\0' && allowed.find(letter) != std::string_view::npos ? letter : otherwise;
}

// A field of bytes that nobody filled.
std::span<const unsigned char> filled(std::span<const unsigned char> field) {
    const bool empty = field.empty() || field[0] == 0 || field[0] == ' ';
    return empty ? std::span<const unsigned char>() : field;
}

int Zudnst_Plausibility(FT_AREA* area, message_view view, int32_t dist, int32_t length, const char* field) {
    if (length == 0 || !view_data(view, dist, length).empty()) {
        return 0;
    }
    const std::string type(printable(rstrip(std::string_view(area->head.msg_typ, message_type_size))));
    return ft_fail(area, number_order_distance, std::string(ft_module) + "|" + type + "|" + field);
}

void take_code_table(FT_AREA* area, std::span<const unsigned char> code) {
    if (code.size() == code_table_message_size) {
        SetCodeTab(area->code_table.data(), code.data());
    } else {
        memcpy(area->code_table.data(), GetDefaultCode(area->pcx).inverse, area->code_table.size());
    }
}

void take_letters(FT_AREA* area, const MSG_TYPE_FT_SENDU& order) {
    area->type = order.type == FT_TEXT ? FT_TEXT : FT_BINARY;
    area->overwrite = one_of(order.ov, "012", FT_KEEP);
    area->erase = order.erase;
    area->compress = one_of(order.compress, "12", FT_PLAIN);
    area->flagResume = ft_config().resume ? one_of(order.flag, "12", FT_NO_RESUME) : char{FT_NO_RESUME};
    area->maxrecords = order.maxrecords;
    area->Ft_Owner_uid = ftx_glb().fgx_Owner_uid;
    area->Ft_Owner_gid = ftx_glb().fgx_Owner_gid;
}

// The part of the restart data that this side wrote.
void take_restart_data(FT_AREA* area, message_view view, const MSG_TYPE_FT_SENDU& order) {
    restart_parts parts;
    if (!read_restart_data(view_data(view, order.cont_dist, order.cont_len), &parts)) {
        return;
    }
    area->partner_part = area->destination ? parts.own : parts.copied;
    if (!read_stp_part(area->destination ? parts.copied : parts.own, &area->restart)) {
        area->restart = {};
    }
}

int check_distances(FT_AREA* area, message_view view, const MSG_TYPE_FT_SENDU& order) {
    return Zudnst_Plausibility(area, view, order.src_code_dist, order.src_code_len, "src_code_dist") != 0 ||
                   Zudnst_Plausibility(area, view, order.dst_code_dist, order.dst_code_len,
                                       "dst_code_dist") != 0 ||
                   Zudnst_Plausibility(area, view, order.cont_dist, order.cont_len, "cont_dist") != 0
               ? -1
               : 0;
}

void take_login(FT_AREA* area, message_view view, const MSG_TYPE_FT_SENDU& order) {
    const bool receiver = area->destination;
    const auto variable = receiver ? view_data(view, order.dst_pwd_dist, order.dst_pwd_len)
                                   : view_data(view, order.src_pwd_dist, order.src_pwd_len);
    const std::span<const unsigned char> fixed =
        receiver ? std::span(order.dst_passw) : std::span(order.src_passw);
    ft_login login;
    login.user = receiver ? get_text(order.dst_logininfo) : get_text(order.src_logininfo);
    qx7_error error;
    if (ft_check_login(area->pcx, area->transfer_id, area->orig_file, variable, fixed, &login, &error) != 0) {
        ft_fail(area, error.qx_msgnr, error.qx_msgInsert);
    }
    area->Userid = login.user;
    area->home = login.home;
    area->ft_pw_uid = login.uid;
    area->ft_pw_gid = login.gid;
}

int check_password(EX_PCX* pcx, int number, std::span<const unsigned char> field, const std::string& user,
                   qx7_error* error) {
    std::string text;
    if (PasswordCheck(pcx->pcx_FtPwCheck, number, field, user.c_str(), &text, nullptr) == PASSWORD_ACCEPTED) {
        return 0;
    }
    return qx_error_set(error, -1, EACCES, number_user_unknown, "%s|", printable(user).c_str());
}

int check_home(const ft_login& login, qx7_error* error) {
    effective_user as(login.user.c_str(), error);
    if (!as.ok()) {
        return -1;
    }
    qx7_error found;
    if (fileExists(login.home.c_str(), &found) == 1) {
        return as.finish(0, error);
    }
    file_error(error, "fileExists", login.home, found.qx_errno);
    return as.finish(-1, error);
}

}  // namespace

int ft_check_login(EX_PCX* pcx, int number, std::string_view name, std::span<const unsigned char> variable,
                   std::span<const unsigned char> fixed, ft_login* login, qx7_error* error) {
    if (login->user.empty()) {
        if (pcx->pcx_FtPwCheck != 0) {
            return qx_error_set(error, -1, 0, number_login_required, "|");
        }
        return name.starts_with('/')
                   ? 0
                   : qx_error_set(error, -1, 0, number_legacy_relative_name, "%s|", printable(name).c_str());
    }
    my_passwd_unlimited account;
    if (!AccountOfUser(login->user.c_str(), &account, error)) {
        return error->qx_msgnr != 0 ? -1
                                    : qx_error_set(error, -1, ENOENT, number_user_unknown, "%s|",
                                                   printable(login->user).c_str());
    }
    login->home = account.pw_dir;
    login->uid = account.pw_uid;
    login->gid = account.pw_gid;
    return check_password(pcx, number, variable.empty() ? filled(fixed) : variable, login->user, error) == 0
               ? check_home(*login, error)
               : -1;
}

std::unique_ptr<FT_AREA> create_ft_area(EX_PCX* pcx, const ccm_msg_t* msg, bool destination) {
    const message_view view = view_of(msg);
    const auto record = view_record<MSG_TYPE_FT_SEND>(view);
    const MSG_TYPE_FT_SENDU& order = record.ft_send;
    auto area = std::make_unique<FT_AREA>();
    area->pcx = pcx;
    area->transfer_id = order.ah_idnr;
    area->head = record.header;
    area->version = message_version(&record.header);
    area->destination = destination;
    area->order_address = msg->addr;
    area->last_use = alarm_now();
    area->orig_file = destination ? get_text(order.dst_file) : get_text(order.src_file);
    take_letters(area.get(), order);
    if (order.ah_idnr <= 0) {
        ft_fail(area.get(), number_order_not_possible,
                std::string(ft_module) + (destination ? "|FT_RECV|" : "|FT_SEND|"));
        return area;
    }
    if (check_distances(area.get(), view, order) != 0) {
        return area;
    }
    take_code_table(area.get(), destination ? view_data(view, order.dst_code_dist, order.dst_code_len)
                                            : view_data(view, order.src_code_dist, order.src_code_len));
    const std::string rest(view_text(view, order.rest_dist, order.rest_len));
    area->rest = lower(GetRestField(rest, destination ? REST_RECEIVER : REST_SENDER));
    take_restart_data(area.get(), view, order);
    take_login(area.get(), view, order);
    return area;
}

void FT_Send_Cnv_Filename(FT_AREA* area) {
    if (!area->text()) {
        return;
    }
    if (GetAttribute(area->rest, "nl=").starts_with('m')) {
        area->separate = FT_LINE_STRIP_CR;
    }
    int64_t length = 0;
    if (parse_number(GetAttribute(area->rest, "reclen="), 1, record_length_max, &length)) {
        area->recLen = static_cast<size_t>(length);
    }
}

void FT_Recv_Cnv_Filename(FT_AREA* area) {
    const auto take_owner = [area](const char* name, char* owner) {
        const std::string_view value = GetAttribute(area->rest, name);
        if (value == "parent") {
            *owner = FT_OWNER_PARENT;
        } else if (value == "user") {
            *owner = FT_OWNER_USER;
        }
    };
    take_owner("uid=", &area->Ft_Owner_uid);
    take_owner("gid=", &area->Ft_Owner_gid);
    const std::string_view line_end = GetAttribute(area->rest, "nl=");
    if (area->text() && !line_end.empty()) {
        area->separate = line_end == "lf" ? FT_LINE_LF : line_end == "none" ? FT_LINE_NONE : FT_LINE_CRLF;
    }
}
