// Control items and data of a partner, as they come out of its stream: files are written where the order says,
// and nowhere else. The first bytes choose the order and what stands at its destination already.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "agent_side.h"
#include "messages/records_transfer.h"
#include "messages/view.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/destination_write.h"
#include "transfer/ftx/module.h"

namespace {

constexpr char kept[] = "what nobody may touch";

std::string home() {
    return sandbox().folder + "/home";
}

std::unique_ptr<ftx_entry> make_entry(EX_PCX* pcx, uint8_t choice, uint8_t more) {
    static constexpr char letters[] = {'N', 'Y', 'A', 'Y'};
    static constexpr char codings[] = {'1', '2', '3', '4'};
    auto ftx = AllocFtxEntry(pcx);
    ftx->home_dir = home();
    ftx->ftx_flag = FTX_RECEIVER | FTX_CAN_CONTINUE;
    ftx->ftx_transfer_id = fuzz_run;
    ftx->ftx_wildcard = (choice & 1) != 0 ? 'Y' : 'N';
    ftx->ftx_type = (choice & 2) != 0 ? 'T' : 'B';
    ftx->ftx_ah_idnr2 = (choice & 4) != 0 ? fuzz_run : 0;
    ftx->ftx_restart = (choice & 4) != 0 ? ftx_resume : ftx_anew;
    ftx->source_file = (choice & 8) != 0 ? "*" : "/base/*.t?t";
    ftx->destination_file = (choice & 1) == 0 ? "in/file" : (choice & 16) != 0 ? "in/*" : "in/&1/x.*";
    ftx->ftx_src_hosttype = (choice >> 5) == 7 ? more : choice >> 5;
    auto order = new_message<MSG_TYPE_FTXRECV>(fuzz_client, fuzz_user);
    order.ftxsndrcv.override = letters[more & 3];
    const auto* bytes = reinterpret_cast<const unsigned char*>(&order);
    ftx->order.assign(bytes, bytes + sizeof order);
    ftx->ftx_overwrite = ftx->ftx_ah_idnr2 != 0 ? 'Y' : letters[more & 3];
    ftx->ftx_text_coding = codings[more >> 2 & 3];
    ftx->ftx_separate = (more & 16) != 0 ? 'C' : 'L';
    ftx->ftx_erase = (more & 32) != 0 ? 'Y' : 'N';
    ftx->buffer.reset(new unsigned char[ftx_buffer_size]);
    return ftx;
}

void prepare(uint8_t more) {
    std::filesystem::create_directories(home() + "/in/sub");
    std::ofstream(home() + "/kept") << kept;
    if ((more & 64) != 0) {
        std::ofstream(home() + "/in/file") << "old";
    }
    if ((more & 128) != 0) {
        std::ofstream(home() + "/in/AAAAAAB_0.tmp") << "half";
    }
}

void check_kept() {
    std::string content;
    std::getline(std::ifstream(home() + "/kept"), content);
    size_t others = 0;
    for (const auto& one : std::filesystem::directory_iterator(home())) {
        others += one.path() != home() + "/kept" && one.path() != home() + "/in" ? 1 : 0;
    }
    if (content != kept || others != 0) {
        abort();
    }
}

// An item of the fuzzer's values, or with bit 6 of its first byte the fuzzer's bytes as they are.
ControlStream make_item(byte_source* source, uint8_t form) {
    if ((form & 64) != 0) {
        return ControlStream(source->text());
    }
    ControlStream item;
    cbsPutInt(&item, "OID", source->byte());
    cbsPutString(&item, (form & 32) != 0 ? "ERROR_NR" : "FNAME", source->text());
    if ((form & 16) != 0) {
        cbsPutInt64(&item, "SIZ", static_cast<int64_t>(source->byte()) << (source->byte() & 62));
    }
    if ((form & 8) != 0) {
        const std::string_view record = source->text();
        cbsPutByteStream(&item, "RST", record.data(), record.size());
    }
    return item;
}

// False when the stream has ended.
bool give(ftx_entry* ftx, byte_source* source) {
    ErrMsg err{};
    const uint8_t form = source->byte();
    const bool data = (form & 128) != 0;
    const ControlStream item = data ? ControlStream(source->text()) : make_item(source, form);
    const int control = data ? (form & 1) * CTRL_RECORD_END : form & 7;
    const auto write = ftx->ftx_type == ftx_text ? dst_textWrite : dst_binWrite;
    write(ftx, item.data(), static_cast<int>(item.size()), 0, control, &err);
    return err.code == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) {
        return 0;
    }
    EX_PCX& pcx = fuzz_agent();
    byte_source source(data, size);
    const uint8_t choice = source.byte();
    const uint8_t more = source.byte();
    prepare(more);
    fuzz_begin();
    ftx_glb().ft_use_md5 = true;
    const auto ftx = make_entry(&pcx, choice, more);
    for (int i = 0; i < 40 && source.left() > 0 && give(ftx.get(), &source); ++i) {
    }
    dst_closeUnfinished(ftx.get());
    check_kept();
    fuzz_end();
    return 0;
}
