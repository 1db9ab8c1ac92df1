// What comes out of the status store. The file belongs to a user, who may have written anything into it.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/switch_user.h"
#include "log/log.h"
#include "transfer/ftx/store.h"
#include "transfer/ftx/store_reads.h"
#include "transfer/status_store.h"

namespace {

constexpr size_t value_max = 4096;
constexpr size_t insert_max = 1023;
constexpr int64_t largest_store = int64_t{4} << 30;  // that of some million files
constexpr int kept_flags = FTX_WILDCARD | FTX_SUBDIR | FTX_DIRECT | FTX_REPORT_ASKED | FTX_ABORT_ON_ERROR |
                           FTX_CAN_CONTINUE | FTX_END_LOGGED | FTX_SUBDIRSTRUCT | FTX_END_REPORTED |
                           FTX_FROM_RECEIVER;

// The store of `id`: the one that the entry has open, or a look at another.
class store_of_id {
  public:
    kvstore* open(ftx_entry* ftx, int id, qx7_error* err) {
        const std::string name = ss_fileName(ftx->pcx, id);
        if (ftx->store != nullptr && ftx->store->db_filename == name) {
            return ftx->store.get();
        }
        const bool good =
            kvstore_open(&own_, name.c_str(), kvstore_peek, err) == 0 && ss_checkVersion(&own_, err) == 0;
        return good ? &own_ : nullptr;
    }

  private:
    kvstore own_;
};

bool is_status(char letter) {
    return letter != 0 && strchr("WARSCEX", letter) != nullptr;
}

bool plausible(const __ftx_elem& image, int oid) {
    return image.ftxe_oId == oid && is_status(image.ftxe_status) && image.ftxe_text_coding >= '0' &&
           image.ftxe_text_coding <= '4' && image.ftxe_fileSize >= 0 && image.ftxe_transferedBytes >= 0 &&
           image.ftxe_records >= 0 && image.ftxe_rss_records >= 0 && image.ftxe_lifeTime >= 0;
}

int load_parts(kvstore* db, ftx_elem* elem, qx7_error* err) {
    const auto part = [&](const char* name, size_t max, std::string* text) {
        return ss_getText(db, ss_elementKey(elem->ftxe_oId, name), max, text, err);
    };
    if (part(key_part_source, ftx_name_max + 1, &elem->source_name) != 0 ||
        part(key_part_destination, ftx_name_max, &elem->destination_name) != 0 ||
        part(key_part_sender, ftx_restart_item_max, &elem->sender_record) != 0 ||
        part(key_part_receiver, ftx_restart_item_max, &elem->receiver_record) != 0) {
        return -1;
    }
    if (elem->sender_record.empty() || elem->receiver_record.empty()) {
        elem->sender_record.clear();
        elem->receiver_record.clear();
    }
    elem->ftxe_rss_len = static_cast<int32_t>(elem->sender_record.size());
    elem->ftxe_rsr_len = static_cast<int32_t>(elem->receiver_record.size());
    return elem->ftxe_msgnr == 0 ? 0 : part(key_part_insert, insert_max, &elem->insert);
}

// 1, 0 behind the last one, -1.
int load_element(ftx_entry* ftx, kvstore* db, int oid, qx7_error* err) {
    const std::string key = ss_elementKey(oid, "");
    __ftx_elem image;
    const int found = ss_getRecord(db, key, &image, sizeof image, err);
    if (found <= 0) {
        return found;
    }
    if (!plausible(image, oid)) {
        return ss_keyFault(key, err);
    }
    ftx_elem* const elem = ftxe_addnew(ftx, oid);
    update_FtxStatus(ftx, elem, image.ftxe_status);
    ftxe_from_image(image, elem);
    elem->ftxe_flag &= FTXE_KINDS | FTXE_REPORTED;  // the digest is decided anew when the file is opened
    return load_parts(db, elem, err) == 0 ? 1 : -1;
}

// 1, 0 behind the last one, -1.
int load_line(ftx_entry* ftx, kvstore* db, int id, int number, qx7_error* err) {
    const std::string key = ss_reportKey(static_cast<uint32_t>(id), number);
    std::string record;
    if (ss_getText(db, key, value_max, &record, err) != 0) {
        return -1;
    }
    if (record.empty()) {
        return 0;
    }
    __ftx_log head{};
    memcpy(&head, record.data(), std::min(record.size(), ftx_log_text));
    if (record.size() < ftxLogLength(0) || head.log_nr != number || head.msl_insert_len < 0 ||
        static_cast<size_t>(head.msl_insert_len) > record.size() - ftxLogLength(0)) {
        return ss_keyFault(key, err);
    }
    ftx_log_line& line = ftx->report.emplace_back();
    line.log_nr = number;
    memcpy(line.timestamp, head.timestamp, sizeof line.timestamp);
    line.msl_id = head.msl_id;
    line.insert = record.substr(ftx_log_text, static_cast<size_t>(head.msl_insert_len));
    return 1;
}

template <size_t N>
void terminate(char (&text)[N]) {
    text[N - 1] = 0;
}

// Numbers that are only counted on, and texts that something may take for terminated.
void make_plausible(ftx_entry* ftx) {
    ftx->ftx_flag = (ftx->ftx_flag & kept_flags) | FTX_SENDER;
    if (ftx->ftx_status_flag == 0 || strchr("RFEC", ftx->ftx_status_flag) == nullptr) {
        ftx->ftx_status_flag = FTX_STATUS_ERROR;
    }
    ftx->ftx_sta_count = std::clamp(ftx->ftx_sta_count, 0, INT_MAX / 2);
    ftx->ftx_compressed_size = std::max<int64_t>(ftx->ftx_compressed_size, 0);
    terminate(ftx->ftx_Insert);
    terminate(ftx->ftx_srv_partner);
    terminate(ftx->ftx_srv_modul);
    terminate(ftx->ftx_agent_modul);
    terminate(ftx->ftx_peer_txt);
    terminate(ftx->ftx_connect_ip);
    terminate(ftx->ftx_attr_connect_name);
    terminate(ftx->ftx_attr_connect_ip);
    memcpy(&ftx->order_address, ftx->ftxsend_addr, sizeof ftx->order_address);
    terminate(ftx->order_address.dst_addr);
    terminate(ftx->order_address.dst_name);
    terminate(ftx->order_address.src_addr);
    terminate(ftx->order_address.src_name);
}

int load_area(ftx_entry* ftx, qx7_error* err) {
    kvstore* const db = ftx->store.get();
    FTX_AREA image;
    const int found = ss_getRecord(db, key_ftx, &image, sizeof image, err);
    if (found <= 0) {
        return found < 0 ? -1 : ss_keyFault("FTX area", err);
    }
    ftx_from_image(image, ftx);
    make_plausible(ftx);
    if (!db->bt_root.contains(key_ftx_source)) {
        return ss_keyFault("SRCFILE area", err);
    }
    if (!db->bt_root.contains(key_ftx_destination)) {
        return ss_keyFault("DSTFILE area", err);
    }
    return ss_getText(db, key_ftx_source, ftx_name_max, &ftx->source_file, err) == 0
               ? ss_getText(db, key_ftx_destination, ftx_name_max, &ftx->destination_file, err)
               : -1;
}

// A look at some keys of a store: the agent does not hold what a user may have put into it.
int peek(kvstore* db, const std::string& name, std::vector<std::string> keys, qx7_error* err) {
    db->only = std::move(keys);
    return kvstore_open(db, name.c_str(), kvstore_peek, err);
}

// The list was whole when the entry was written last, and nothing of it has gone since.
bool holds_whole_list(const std::string& name, qx7_error* err) {
    kvstore db;
    FTX_AREA image;
    if (peek(&db, name, {key_version, key_ftx}, err) != 0 || ss_checkVersion(&db, err) != 0 ||
        ss_getRecord(&db, key_ftx, &image, sizeof image, err) <= 0 || image.ftx_max_oid < 0) {
        return false;
    }
    const std::string behind = ss_elementKey(image.ftx_max_oid, "");
    const std::string last = image.ftx_max_oid == 0 ? key_ftx : ss_elementKey(image.ftx_max_oid - 1, "");
    return peek(&db, name, {last, behind}, err) == 0 && db.bt_root.contains(last) &&
           !db.bt_root.contains(behind);
}

// Larger ones would keep the agent from its work.
bool is_too_large(const std::string& name) {
    struct stat facts {};
    return stat(name.c_str(), &facts) == 0 && facts.st_size > largest_store;
}

void set_aside(const std::string& name) {
    if (rename(name.c_str(), (name + ".bad").c_str()) != 0) {
        const int number = errno;
        __log(number_file_call, "rename()|%s|%d|%s|", name.c_str(), number, strerror(number));
    }
}

}  // namespace

int ss_keyFault(std::string_view key, qx7_error* err) {
    return qx_error_set(err, -1, 0, number_store_key, "key: %.*s", static_cast<int>(key.size()), key.data());
}

int ss_getText(kvstore* db, std::string_view key, size_t max, std::string* text, qx7_error* err) {
    char value[value_max];
    size_t len = std::min(max, sizeof value);
    const int64_t n = kvstore_get(db, key, value, &len, err);
    if (n < 0) {
        return -1;
    }
    text->assign(value, static_cast<size_t>(n));
    return 0;
}

int ss_getRecord(kvstore* db, std::string_view key, void* record, size_t size, qx7_error* err) {
    memset(record, 0, size);
    size_t len = size;
    const int64_t n = kvstore_get(db, key, record, &len, err);
    if (n == 0 && !db->bt_root.contains(key)) {
        return 0;
    }
    return n < 0 ? -1 : n == static_cast<int64_t>(size) ? 1 : ss_keyFault(key, err);
}

int ss_checkVersion(kvstore* db, qx7_error* err) {
    std::string found;
    if (ss_getText(db, key_version, value_max, &found, err) != 0) {
        return -1;
    }
    return ss_checkVersionText(found)
               ? 0
               : qx_error_set(err, -1, 0, number_store_version, "%s|%s|%s|", db->db_filename.c_str(),
                              ss_getVersionText().c_str(), printable(found.substr(0, 64)).c_str());
}

bool ss_usable(ftx_entry* ftx) {
    ss_createSSFileName(ftx);
    qx7_error err;
    effective_user as(ftx->user_name.c_str(), &err);
    if (!as.ok()) {
        __log_error(err);
        return false;
    }
    const bool usable = !is_too_large(ftx->store_name) && holds_whole_list(ftx->store_name, &err);
    if (!usable && err.qx_errno != ENOENT) {
        __log_error(err);
    }
    if (err.qx_msgnr == number_store_damaged) {
        set_aside(ftx->store_name);
    }
    if (as.finish(0, &err) != 0) {
        __log_error(err);
        return false;
    }
    return usable;
}

int ss_loadFTXEall(ftx_entry* ftx, int id, qx7_error* err) {
    ftxe_remove_all(ftx);
    ftx->ftx_nof_active = ftx->ftx_nof_sent = ftx->ftx_nof_completed = ftx->ftx_nof_error = 0;
    store_of_id store;
    kvstore* const db = store.open(ftx, id, err);
    if (db == nullptr) {
        return -1;
    }
    int found = 1;
    for (int oid = 0; found == 1 && oid < INT_MAX; ++oid) {
        found = load_element(ftx, db, oid, err);
    }
    return found < 0 ? -1 : 0;
}

int ss_loadREPORT(ftx_entry* ftx, int id, qx7_error* err) {
    ftx->report.clear();
    ftx->ftx_last_log_nr = 0;
    store_of_id store;
    kvstore* const db = store.open(ftx, id, err);
    if (db == nullptr) {
        return -1;
    }
    int found = 1;
    for (int number = 1; found == 1 && number < INT_MAX; ++number) {
        found = load_line(ftx, db, id, number, err);
    }
    return found < 0 ? -1 : 0;
}

int ss_loadFTX(ftx_entry* ftx, qx7_error* err) {
    if (ss_open_file(ftx, SS_FOR_QUESTION, err) != 0) {
        return -1;
    }
    const int id = ss_storeId(ftx);
    if (ss_checkVersion(ftx->store.get(), err) != 0 || load_area(ftx, err) != 0 ||
        ss_loadFTXEall(ftx, id, err) != 0 || ss_loadREPORT(ftx, id, err) != 0) {
        ss_closeFile(ftx, nullptr);
        return -1;
    }
    ftx->ftx_last_log_nr = ftx->report.empty() ? 0 : ftx->report.back().log_nr;
    return 0;
}
