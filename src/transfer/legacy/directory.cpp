// FT_DIR: the files that a mask finds, told in FT_FILE messages. Each waits for the server's word on the one
// before; the last is empty.
#include "transfer/legacy/directory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "base/context.h"
#include "base/error_text.h"
#include "base/folder_walk.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/outgoing.h"
#include "channels/replies.h"
#include "identity/switch_user.h"
#include "identity/user_files.h"
#include "log/log.h"
#include "log/trace.h"
#include "messages/records_transfer.h"
#include "transfer/legacy/module.h"
#include "transfer/legacy/order.h"
#include "transfer/legacy/sides.h"

namespace {

constexpr size_t list_max = 100000;     // names
constexpr int64_t walk_max_ms = 20000;  // the agent does nothing else meanwhile
constexpr size_t name_max = 254;        // bytes that a name may have in FT_FILE
constexpr size_t message_max = 32000;
constexpr size_t lists_max = 100;

// One listing.
struct FT_AH_idnr {
    int ah_idnr = 0;
    QX_HEADM head = {};
    ccm_addr_t order_address = {};
    std::vector<std::string> names;  // whole paths
    size_t told = 0;
    size_t left_out = 0;
    bool ended = false;  // the empty message went out, whose answer nobody needs
    time_t last_use = 0;
};

std::list<FT_AH_idnr>& lists() {
    static std::list<FT_AH_idnr> all;
    return all;
}

FT_AH_idnr* find_list(int ah_idnr) {
    const auto found = std::find_if(lists().begin(), lists().end(),
                                    [ah_idnr](const FT_AH_idnr& each) { return each.ah_idnr == ah_idnr; });
    return found == lists().end() ? nullptr : &*found;
}

void drop_list(int ah_idnr) {
    lists().remove_if([ah_idnr](const FT_AH_idnr& each) { return each.ah_idnr == ah_idnr; });
}

// With its slash, so that folder and name together are the path.
std::string folder_of(const std::string& path) {
    return path.substr(0, path.rfind('/') + 1);
}

// Gathers what is no folder.
int FT_FileName(_My_Area* area, const std::string& name, const walk_entry& entry, folder_walk_event event) {
    FT_AH_idnr* list = static_cast<FT_AH_idnr*>(area->my_struct);
    if (event != WALK_ENTRY || !entry.matches || entry.kind == FILE_KIND_DIRECTORY) {
        return 0;
    }
    if (folder_of(name).size() > name_max || path_file_name(name).size() > name_max) {
        ++list->left_out;
        return 0;
    }
    list->names.push_back(name);
    return list->names.size() < list_max ? 0 : 1;
}

int walk(FT_AH_idnr* list, const std::string& path, bool subfolders, qx7_error* error) {
    const std::string folder = folder_of(path);
    file_way way;
    if (walk_way((folder + "*").c_str(), &way) != 0) {
        return file_error(error, "fileExists", folder, errno);
    }
    _My_Area area;
    copy_text(area.my_id, "%MY_AREA_FTDIR%");
    area.my_struct = list;
    area.folder = way.dir.get();
    area.path = folder;
    const std::string_view mask = path_file_name(path);
    area.mask = mask.empty() ? "*" : mask;
    area.recursion = subfolders;
    area.deadline_ms = alarm_now_ms() + walk_max_ms;
    const int result = tq_FileHandler(&area, FT_FileName, error);
    if (result > 0 || area.deadline_met || list->left_out > 0) {
        __log(-1, "list %d of '%s' is not whole: %zu names, %zu too long", list->ah_idnr,
              printable(path).c_str(), list->names.size(), list->left_out);
    }
    std::sort(list->names.begin(), list->names.end());
    return result < 0 ? -1 : 0;
}

int gather(EX_PCX* pcx, const ccm_msg_t* msg, const MSG_TYPE_FT_DIR& order, FT_AH_idnr* list,
           qx7_error* error) {
    const message_view view = view_of(msg);
    const std::string name(get_text(order.filename));
    ft_login login;
    login.user = get_text(order.logininfo);
    if (ft_check_login(pcx, order.ah_idnr, name, view_data(view, order.pwd_dist, order.pwd_len), order.passw,
                       &login, error) != 0) {
        return -1;
    }
    const std::string path = name.starts_with('/') ? name : login.home + "/" + name;
    effective_user as(login.user.c_str(), error);
    if (!as.ok()) {
        return -1;
    }
    const bool subfolders = order.folder == '1' || order.folder == 'Y';
    return as.finish(walk(list, path, subfolders, error), error);
}

int create_and_send_ft_file_message(EX_PCX* pcx, FT_AH_idnr* list) {
    message_builder<MSG_TYPE_FT_FILE> message(list->head);
    message->ah_idnr = list->ah_idnr;
    const size_t first = list->told;
    size_t length = sizeof message.record;
    while (list->told < list->names.size()) {
        length += list->names[list->told].size() + 2;
        if (length > message_max) {
            break;
        }
        ++list->told;
    }
    message.begin_table(MSG_TYPE_FT_FILE::files, list->told - first);
    for (size_t i = first; i < list->told; ++i) {
        message.put_terminated(folder_of(list->names[i]));
        message.put_terminated(path_file_name(list->names[i]));
    }
    list->ended = list->told == first;
    if (list->ended) {
        list->names = {};
    }
    list->last_use = alarm_now();
    ccm_msg_t* msg = message_of(pcx->ccm, message);
    if (msg == nullptr) {
        return -1;
    }
    set_route(msg, to_kept(list->order_address));
    ccm_setback(msg, pcx->exName, ft_module, list->ah_idnr);
    return send_NAT_message(pcx->ccm, msg);
}

// The server has taken one message.
int FT_MsgQuitFile(EX_PCX* pcx, FT_AH_idnr* list, bool taken) {
    if (!taken || list->ended) {
        drop_list(list->ah_idnr);
        return 0;
    }
    return create_and_send_ft_file_message(pcx, list);
}

}  // namespace

size_t ft_lists_under_way() {
    return static_cast<size_t>(
        std::count_if(lists().begin(), lists().end(), [](const FT_AH_idnr& each) { return !each.ended; }));
}

void ft_forget_lists() {
    lists().clear();
}

void ft_drop_silent_lists(time_t now) {
    lists().remove_if([now](const FT_AH_idnr& each) { return now - each.last_use >= ft_idle_limit; });
}

int process_ft_dir(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto order = view_record<MSG_TYPE_FT_DIR>(view_of(msg));
    if (ft_refuse_other_side(pcx, msg, CCM_FROM_SERVER)) {
        return -1;
    }
    FT_AH_idnr list;
    list.ah_idnr = order.ah_idnr;
    list.head = order.header;
    list.order_address = msg->addr;
    qx7_error error;
    if (ft_lists_under_way() >= lists_max) {
        qx_error_set(&error, -1, 0, number_no_memory, "FT_DIR|");
    }
    if (error.qx_msgnr != 0 || gather(pcx, msg, order, &list, &error) != 0) {
        __log_error(error);
        send_quitt_reply(pcx, msg, error.qx_msgnr, error.qx_msgInsert, "NK", nullptr, 0);
        return -1;
    }
    drop_list(order.ah_idnr);
    lists().push_back(std::move(list));
    return create_and_send_ft_file_message(pcx, &lists().back());
}

int process_ft_quitt_message(EX_PCX* pcx, ccm_msg_t* msg, int) {
    const auto quitt = view_record<MSG_TYPE_QUITT>(view_of(msg));
    if (ft_refuse_other_side(pcx, msg, CCM_FROM_SERVER)) {
        return -1;
    }
    FT_AH_idnr* list = find_list(msg->addr.dst_acv);
    if (get_text(quitt.msg) != "FT_FILE" || list == nullptr) {
        trcdump("QUITT", msg->msg_start, msg->len);
        __log(number_order_not_possible, "%s|%s|", ft_module, "QUITT");
        return -1;
    }
    return FT_MsgQuitFile(pcx, list, get_text(quitt.quitt) == "OK");
}
