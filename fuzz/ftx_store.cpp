// A status store that its user made up. Bit 0 of the first byte: its file is the rest of the input; otherwise a
// sound store of two files, of which the input changes records. It loads or is refused; what loads is told to
// the server and goes on as a restart, and nothing in it is longer than a transfer may have.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "agent_side.h"
#include "input.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/store.h"
#include "transfer/status_store.h"

namespace {

void check(bool good) {
    if (!good) {
        abort();
    }
}

std::unique_ptr<ftx_entry> make(char restart) {
    auto entry = AllocFtxEntry(&fuzz_agent());
    entry->ftx_transfer_id = fuzz_run;
    entry->ftx_flag = FTX_SENDER;
    entry->ftx_restart = restart;
    return entry;
}

void add_element(ftx_entry* ftx, int oid) {
    ftx_elem* const elem = ftxe_addnew(ftx, oid);
    elem->source_name = "/data/" + std::to_string(oid);
    elem->destination_name = "/in";
    elem->sender_record = elem->receiver_record = std::string(24, 'r');
    elem->ftxe_flag = FTXE_FILE | FTXE_SAVE_SOURCE | FTXE_SAVE_DESTINATION | FTXE_SAVE_RESTART;
    ftxe_set_message(elem, 11404, 17, "insert");
    update_FtxStatus(ftx, elem, oid == 0 ? FTXE_COMPLETE : FTXE_ERROR);
    check(ss_saveFTXE(ftx, elem, nullptr) == 0);
}

void make_sound_store() {
    auto ftx = make(ftx_anew);
    ftx->source_file = "/data/*";
    check(ss_saveFTX(ftx.get(), nullptr) == 0);
    add_element(ftx.get(), 0);
    add_element(ftx.get(), 1);
    putFtxLog(ftx.get(), 11133, "line|");
    putFtxLog(ftx.get(), 11409, "1|");
    check(ss_saveFTX(ftx.get(), nullptr) == 0);
}

// A byte for the key; a byte for the place where the text goes into the value, 255 for a whole new value.
void change_record(kvstore* db, byte_source* source) {
    auto one = db->bt_root.begin();
    std::advance(one, source->byte() % db->bt_root.size());
    const std::string key = one->first;
    std::string value(static_cast<size_t>(one->second.value_len), '\0');
    size_t len = value.size();
    check(kvstore_get(db, key, value.data(), &len, nullptr) >= 0);
    const size_t place = source->byte();
    const std::string_view text = source->text();
    if (place == 255) {
        value = text;
    } else {
        value.replace(std::min(place, value.size()), text.size(), text);
    }
    check(kvstore_put(db, key, value.data(), value.size(), nullptr) == 0);
}

void write_store(byte_source* source) {
    const std::string path = ss_fileName(&fuzz_agent(), fuzz_run);
    const bool whole_file = (source->byte() & 1) != 0;
    if (whole_file) {
        std::ofstream(path, std::ios::binary) << source->rest();
        return;
    }
    make_sound_store();
    kvstore db;
    check(kvstore_open(&db, path.c_str(), kvstore_existing, nullptr) == 0);
    fuzz_steps(source, 20, [&db](byte_source* step) { change_record(&db, step); });
}

void check_elements(const ftx_entry* ftx) {
    for (const auto& [oid, elem] : ftx->elements) {
        check(elem.ftxe_oId == oid && elem.source_name.size() <= ftx_name_max + 1 &&
              elem.destination_name.size() <= ftx_name_max && elem.insert.size() <= 1023 &&
              elem.sender_record.size() <= ftx_restart_item_max &&
              elem.receiver_record.size() <= ftx_restart_item_max &&
              elem.sender_record.empty() == elem.receiver_record.empty() && (elem.ftxe_flag & FTXE_MD5) == 0);
    }
    check(ftx->ftx_nof_active + ftx->ftx_nof_completed + ftx->ftx_nof_error + ftx->ftx_nof_sent ==
          static_cast<int>(ftx->elements.size()));
}

void answer_a_question() {
    auto ftx = make('0');
    if (ss_loadFTX(ftx.get(), nullptr) != 0) {
        check(ftx->store == nullptr);
        return;
    }
    check_elements(ftx.get());
    check(ftx->is_sender() && ftx->ftx_transfer_id == fuzz_run && !ftx->has(FTX_RECEIVER | FTX_DELETED));
    ftx->ftx_progress = FTX_FINISHED;
    ftx_send_ftxsta(&fuzz_agent(), ftx.get());
    for (size_t before = SIZE_MAX; before > ftx->report.size() && !ftx->report.empty();) {
        before = ftx->report.size();
        ftx->ftx_flag |= FTX_REPORT_ASKED;
        check(ftx_send_ftxwrite(&fuzz_agent(), ftx.get(), 1) == 0);
        ftx->report.pop_front();
    }
}

void go_on() {
    auto ftx = make(ftx_resume);
    if (!ss_usable(ftx.get())) {
        return;
    }
    if (ss_saveFTX(ftx.get(), nullptr) == 0 &&
        ftx_create_filelist_from_statusstore(ftx.get(), nullptr) == 0) {
        check_elements(ftx.get());
        check(ss_saveFTX(ftx.get(), nullptr) == 0);
        ftx.reset();
        check(ss_usable(make(ftx_resume).get()));
    }
}

void run(byte_source* source) {
    copy_text(fuzz_agent().pcx_OutFolder, sandbox().folder + "/home");
    write_store(source);
    answer_a_question();
    go_on();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz_input(data, size, 1, run);
}
