// What goes into the status store.
#include "transfer/ftx/store.h"

#include <cstring>
#include <vector>

#include "base/context.h"
#include "base/text.h"
#include "transfer/ftx/store_reads.h"
#include "transfer/status_store.h"

namespace {

constexpr int list_not_whole = -1;

int put(ftx_entry* ftx, std::string_view key, std::string_view value, qx7_error* err) {
    return kvstore_put(ftx->store.get(), key, value.data(), value.size(), err);
}

template <class Record>
std::string_view image_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

int clear_report(ftx_entry* ftx, qx7_error* err) {
    std::vector<std::string> keys;
    for (auto one = ftx->store->bt_root.lower_bound("RPT");
         one != ftx->store->bt_root.end() && one->first.starts_with("RPT"); ++one) {
        keys.push_back(one->first);
    }
    for (const std::string& key : keys) {
        if (kvstore_delete(ftx->store.get(), key, err) != 0) {
            return -1;
        }
    }
    return 0;
}

// The length of the list that the store holds, which this run does not make anew.
int take_list_length(ftx_entry* ftx, qx7_error* err) {
    FTX_AREA image;
    const int found = ss_getRecord(ftx->store.get(), key_ftx, &image, sizeof image, err);
    if (found <= 0) {
        return found < 0 ? -1 : ss_keyFault("FTX area", err);
    }
    ftx->ftx_max_oid = image.ftx_max_oid;
    return 0;
}

int begin_run(ftx_entry* ftx, bool resumes, qx7_error* err) {
    ftx->ftx_max_oid = list_not_whole;
    if (resumes) {
        if (ss_checkVersion(ftx->store.get(), err) != 0 || take_list_length(ftx, err) != 0 ||
            clear_report(ftx, err) != 0) {
            return -1;
        }
    } else if (put(ftx, key_version, ss_getVersionText(), err) != 0) {
        return -1;
    }
    for (const ftx_log_line& line : ftx->report) {
        if (ss_saveREPORT(ftx, line, err) != 0) {
            return -1;
        }
    }
    return 0;
}

// The two records of a restart belong together: the second one is void while the first changes, so that a
// crash leaves both or none.
int save_restart(ftx_entry* ftx, const ftx_elem* elem, qx7_error* err) {
    const std::string receiver = ss_elementKey(elem->ftxe_oId, key_part_receiver);
    if (ftx->store->bt_root.contains(receiver) && put(ftx, receiver, "", err) != 0) {
        return -1;
    }
    if (elem->ftxe_status == FTXE_AGAIN || elem->sender_record.empty() || elem->receiver_record.empty()) {
        return 0;
    }
    const std::string sender = ss_elementKey(elem->ftxe_oId, key_part_sender);
    return put(ftx, sender, elem->sender_record, err) == 0 ? put(ftx, receiver, elem->receiver_record, err)
                                                           : -1;
}

int save_part(ftx_entry* ftx, const ftx_elem* elem, const char* part, std::string_view value,
              qx7_error* err) {
    return put(ftx, ss_elementKey(elem->ftxe_oId, part), value, err);
}

int save_parts(ftx_entry* ftx, const ftx_elem* elem, qx7_error* err) {
    if ((elem->ftxe_flag & FTXE_SAVE_SOURCE) != 0 &&
        save_part(ftx, elem, key_part_source, elem->source_name, err) != 0) {
        return -1;
    }
    if ((elem->ftxe_flag & FTXE_SAVE_DESTINATION) != 0 &&
        save_part(ftx, elem, key_part_destination, elem->destination_name, err) != 0) {
        return -1;
    }
    const bool restart = (elem->ftxe_flag & FTXE_SAVE_RESTART) != 0 || elem->ftxe_status == FTXE_AGAIN;
    if (restart && save_restart(ftx, elem, err) != 0) {
        return -1;
    }
    return elem->insert.empty() ? 0 : save_part(ftx, elem, key_part_insert, elem->insert, err);
}

}  // namespace

int ss_storeId(const ftx_entry* ftx) {
    return ftx->ftx_ah_idnr2 != 0 ? ftx->ftx_ah_idnr2 : ftx->ftx_transfer_id;
}

std::string ss_fileName(const EX_PCX* pcx, int id) {
    char letters[8];
    Zudnst_LongToB26(static_cast<uint32_t>(id), letters);
    return std::string(pcx->pcx_OutFolder) + "/FT" + letters + ".sts";
}

void ss_createSSFileName(ftx_entry* ftx) {
    ftx->store_name = ss_fileName(ftx->pcx, ss_storeId(ftx));
}

int ss_open_file(ftx_entry* ftx, int mode, qx7_error* err) {
    ss_createSSFileName(ftx);
    const bool resumes = ftx->ftx_restart == ftx_resume;
    const int how = mode == SS_FOR_QUESTION ? kvstore_any_owner : resumes ? kvstore_existing : kvstore_empty;
    auto store = std::make_unique<kvstore>();
    if (kvstore_open(store.get(), ftx->store_name.c_str(), how, err) != 0) {
        return -1;
    }
    ftx->store = std::move(store);
    if (mode == SS_FOR_RUN && begin_run(ftx, resumes, err) != 0) {
        ss_closeFile(ftx, nullptr);
        return -1;
    }
    return 0;
}

int ss_closeFile(ftx_entry* ftx, qx7_error* err) {
    if (ftx->store == nullptr) {
        return 0;
    }
    const int result = kvstore_close(ftx->store.get(), err);
    ftx->store.reset();
    return result;
}

int ss_rm_file(ftx_entry* ftx, qx7_error* err) {
    return ss_closeFile(ftx, err);
}

int ss_saveFTX(ftx_entry* ftx, qx7_error* err) {
    if (ftx->store == nullptr) {
        if (ss_open_file(ftx, SS_FOR_RUN, err) != 0) {
            return -1;
        }
    } else if (ftx->ftx_max_oid == list_not_whole && !ftx->interrupted) {
        ftx->ftx_max_oid = static_cast<int32_t>(ftx->elements.size());
    }
    memcpy(ftx->ftxsend_addr, &ftx->order_address, sizeof ftx->ftxsend_addr);
    const FTX_AREA image = ftx_to_image(*ftx);
    if (put(ftx, key_ftx, image_of(image), err) != 0 ||
        put(ftx, key_ftx_source, ftx->source_file, err) != 0) {
        return -1;
    }
    return put(ftx, key_ftx_destination, ftx->destination_file, err);
}

int ss_saveFTXE(ftx_entry* ftx, ftx_elem* elem, qx7_error* err) {
    if (ftx->store == nullptr) {
        return 0;
    }
    // The parts come first: an element that is there has them, and one that is complete has its names.
    if (save_parts(ftx, elem, err) != 0) {
        return -1;
    }
    const int marks = elem->ftxe_flag & FTXE_MUST_SAVE;
    elem->ftxe_flag &= ~FTXE_MUST_SAVE;
    const __ftx_elem image = ftxe_to_image(*elem);
    if (save_part(ftx, elem, "", image_of(image), err) != 0) {
        elem->ftxe_flag |= marks;
        return -1;
    }
    return 0;
}

int ss_saveREPORT(ftx_entry* ftx, const ftx_log_line& line, qx7_error* err) {
    std::string record(ftxLogLength(line.insert.size()), '\0');
    __ftx_log head{};
    head.log_nr = line.log_nr;
    memcpy(head.timestamp, line.timestamp, sizeof head.timestamp);
    head.msl_id = line.msl_id;
    head.msl_insert_len = static_cast<int32_t>(line.insert.size());
    memcpy(record.data(), &head, ftx_log_text);
    memcpy(record.data() + ftx_log_text, line.insert.data(), line.insert.size());
    return put(ftx, ss_reportKey(static_cast<uint32_t>(ss_storeId(ftx)), line.log_nr), record, err);
}
