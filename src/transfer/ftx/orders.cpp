#include "transfer/ftx/orders.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"
#include "messages/head.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/order_parts.h"
#include "transfer/ftx/store.h"

namespace {

constexpr int hosttype_of_sender = 99;
// Blocks of a window at most: what a partner does not read waits here, and a line has its limit, too.
constexpr int window_most = 2048;

// ---- What was ordered, and of whom

int check_length(const ftx_order& order, qx7_error* err) {
    if (order.view.length > ftx_order_max) {
        return qx_error_set(err, -1, EMSGSIZE, number_call_failed, "FTXSEND|%d-%s", EMSGSIZE,
                            error_text(EMSGSIZE).c_str());
    }
    // Parts of it are written anew on the way.
    return order.view.length < sizeof(MSG_TYPE_FTXSEND) || order.fields().ah_idnr <= 0
               ? order_refused(order, err)
               : 0;
}

int take_head(const ftx_order& order, qx7_error*) {
    ftx_entry* ftx = order.entry;
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    ftx->ftx_ah_idnr2 = fields.ah_idnr2;
    ftx->ftx_type = fields.type;
    memcpy(ftx->ftx_dst_host, fields.dst_host, sizeof ftx->ftx_dst_host);
    memcpy(ftx->ftx_connect_name, fields.connect_name, sizeof ftx->ftx_connect_name);
    EatTrailing(ftx->ftx_dst_host, sizeof ftx->ftx_dst_host);
    EatTrailing(ftx->ftx_connect_name, sizeof ftx->ftx_connect_name);
    ftx->buffer = std::make_unique_for_overwrite<unsigned char[]>(ftx_buffer_size);
    return 0;
}

// Who of the two this agent is, and who connects. An order counts only from where such an order comes.
int classify(const ftx_order& order, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    if (order.to_receiver) {
        ftx->ftx_flag |= FTX_RECEIVER;
        return 0;
    }
    const std::string_view own = get_text(order.pcx->exName);
    const std::string_view destination = get_text(ftx->ftx_dst_host);
    const std::string_view connector = get_text(ftx->ftx_connect_name);
    const bool from_partner = order.msg->origin == CCM_FROM_PARTNER;
    if (own != destination && destination == connector && !from_partner) {
        ftx->ftx_flag |= FTX_DIRECT | FTX_SENDER;
        put_text(ftx->ftx_src_host, own);
    } else if (own != destination && own == connector && from_partner) {
        ftx->ftx_flag |= FTX_FROM_RECEIVER | FTX_SENDER;
        ftx->ftx_sReverseConnect = 1;
        ftx->ftx_sSvcList = order.fields().svc_list;
    } else if (own == destination && own != connector && !from_partner) {
        ftx->ftx_flag |= FTX_CONNECT_BACK | FTX_RECEIVER;
        ftx->ftx_sReverseConnect = 1;
    } else {
        return order_refused(order, err);
    }
    return 0;
}

int take_token(const ftx_order& order, qx7_error*) {
    ftx_entry* ftx = order.entry;
    ftx->ftx_src_hosttype = ftx->is_sender() ? hosttype_of_sender : order.fields().src_fs_type;
    const auto token = view_data(order.view, order.fields().gss_dist, order.fields().gss_len);
    ftx->token.assign(token.begin(), token.end());
    return 0;
}

// ---- Names

int take_name(const ftx_order& order, int dist, int length, std::string* name, int32_t* told,
              qx7_error* err) {
    const std::string_view text = view_text(order.view, dist, length);
    *told = length;
    *name = text.substr(0, text.find('\0'));
    if (name->size() > ftx_name_max) {
        return file_error(err, "create_Path()", printable(name->substr(0, 255)), ENAMETOOLONG);
    }
    return name->empty() ? order_refused(order, err) : 0;
}

int take_names(const ftx_order& order, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    if (take_name(order, fields.src_file_dist, fields.src_file_len, &ftx->source_file, &ftx->src_origLength,
                  err) != 0) {
        return -1;
    }
    return take_name(order, fields.dst_file_dist, fields.dst_file_len, &ftx->destination_file,
                     &ftx->dst_origLength, err);
}

bool has_insert(std::string_view mask) {
    for (size_t i = 0; i + 1 < mask.size(); ++i) {
        if (mask[i] == '&' && mask[i + 1] >= '1' && mask[i + 1] <= '9') {
            return true;
        }
    }
    return false;
}

int check_masks(const ftx_order& order, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    if (order.fields().wildcard != ftx_yes) {
        return 0;
    }
    ftx->ftx_flag |= FTX_WILDCARD;
    const auto refuse = [&](int number, const std::string& name) {
        return qx_error_set(err, -1, EINVAL, number, "%i|%s|", ftx->ftx_transfer_id, printable(name).c_str());
    };
    if (ftx->source_file.find_first_of("*?") == std::string::npos) {
        return refuse(number_wildcard_no_source_mask, ftx->source_file);
    }
    const std::string& mask = ftx->destination_file;
    if (mask.find_first_of("*?") == std::string::npos && !has_insert(mask)) {
        return refuse(number_wildcard_no_destination_mask, mask);
    }
    return 0;
}

// ---- How

int take_letters(const ftx_order& order, qx7_error*) {
    ftx_entry* ftx = order.entry;
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    ftx->ftx_flag |= fields.abort_on_error == ftx_yes ? FTX_ABORT_ON_ERROR : 0;
    ftx->ftx_flag |= fields.subdirstruct == 1 ? FTX_SUBDIRSTRUCT : 0;
    ftx->ftx_flag |= fields.subdir == ftx_yes ? FTX_SUBDIR : 0;
    ftx->ftx_overwrite = ftx->ftx_ah_idnr2 != 0 ? ftx_yes : fields.override;
    ftx->ftx_erase = fields.erase;
    ftx->ftx_subdir = fields.subdir;
    ftx->ftx_compress = fields.compress;
    ftx->ftx_restart = fields.restart;
    ftx->ftx_wildcard = fields.wildcard;
    ftx->ftx_file_attributes = fields.file_attributes;
    ftx->ftx_status_flag = FTX_STATUS_RUNNING;
    return 0;
}

int take_window(const ftx_order& order, qx7_error*) {
    ftx_entry* ftx = order.entry;
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    ftx->ftx_rstrt_interval = order.pcx->ftx_restart_intervall;
    ftx->ftx_async_quit_min = fields.async_quit_min;
    ftx->ftx_async_quit_max = std::clamp(fields.async_quit_max, 1, window_most);
    ftx->ftx_async_quit_num = std::clamp(fields.async_quit_num, 1, ftx->ftx_async_quit_max);
    return 0;
}

int take_peer(const ftx_order& order, qx7_error*) {
    ftx_entry* ftx = order.entry;
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    copy_text(ftx->ftx_connect_ip, get_text(fields.connect_ip));
    ftx->ftx_connect_port = fields.connect_port;
    ftx->order.assign(order.view.data, order.view.data + order.view.length);
    if (ftx->is_sender()) {
        const time_t now = alarm_now();
        const int silence = order.pcx->ftx_con_timeout;
        ftx->ftx_sta_timeStamp = now + order.pcx->ftx_sta_intervall;
        ftx->ftx_rep_timeStamp = now + order.pcx->ftx_report_intervall;
        ftx->ftx_con_timeStamp = silence > 0 ? now + silence : 0;
    }
    // What the rest field says counts more.
    if (ftx->ftx_attr_connect_name[0] != '\0') {
        put_text(ftx->ftx_connect_name, get_text(ftx->ftx_attr_connect_name));
        EatTrailing(ftx->ftx_connect_name, sizeof ftx->ftx_connect_name);
    }
    if (ftx->ftx_attr_connect_ip[0] != '\0') {
        copy_text(ftx->ftx_connect_ip, get_text(ftx->ftx_attr_connect_ip));
    }
    if (ftx->ftx_attr_connect_port != 0) {
        ftx->ftx_connect_port = ftx->ftx_attr_connect_port;
    }
    return 0;
}

// Without a store that can be used both sides begin anew.
int settle_restart(const ftx_order& order, qx7_error*) {
    ftx_entry* ftx = order.entry;
    if (!ftx->is_sender() || ftx->ftx_restart != ftx_resume) {
        return 0;
    }
    ss_createSSFileName(ftx);
    if (!ss_usable(ftx)) {
        constexpr size_t place =
            offsetof(MSG_TYPE_FTXSEND, ftxsndrcv) + offsetof(MSG_TYPE_FTXSNDRCV, restart);
        ftx->ftx_restart = ftx_anew;
        ftx->order[place] = ftx_anew;
    }
    return 0;
}

constexpr order_step steps[] = {
    check_length,    take_head,          classify,    ftx_process_codepage, take_token,
    order_read_rest, take_names,         check_masks, take_letters,         order_read_user,
    take_window,     order_check_source, take_peer,   settle_restart,
};

}  // namespace

int order_refused(const ftx_order& order, qx7_error* err) {
    return qx_error_set(err, -1, EINVAL, number_order_not_possible, "QXFTXEX|%s|",
                        order.to_receiver ? "FTXRECV" : "FTXSEND");
}

std::unique_ptr<ftx_entry> CreateFtxEntry(EX_PCX* pcx, const ccm_msg_t* msg, qx7_error* err) {
    qx_error_clear(err);
    std::unique_ptr<ftx_entry> entry = AllocFtxEntry(pcx);
    const message_view view = view_of(msg);
    const ftx_order order = {pcx,
                             msg,
                             view,
                             view_record<MSG_TYPE_FTXSEND>(view),
                             message_type_is(view.data, view.length, "FTXRECV"),
                             entry.get()};
    // Who has to be answered is known whatever is wrong with the order.
    entry->ftx_transfer_id = order.fields().ah_idnr;
    entry->ftx_UsrIdNr = order.record.header.i4UsrIdNr;
    entry->ftx_Mandant = order.record.header.i2Mandant;
    copy_text(entry->ftx_srv_partner, field_text(msg->addr.src_addr));
    copy_text(entry->ftx_srv_modul, field_text(msg->addr.src_name));
    entry->ftx_srv_acv = static_cast<uint32_t>(msg->addr.src_acv);
    if (!order.to_receiver) {
        entry->order_address = msg->addr;
    }
    for (const order_step step : steps) {
        if (step(order, err) != 0) {
            if (err->qx_msgnr == 0) {
                order_refused(order, err);
            }
            break;
        }
    }
    return entry;
}
