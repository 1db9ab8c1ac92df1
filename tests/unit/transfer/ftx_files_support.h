// Both sides of a transfer in one process: the source's stream goes into the destination, without a line
// between them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/message_numbers.h"
#include "messages/build.h"
#include "messages/records_transfer.h"
#include "module_fixture.h"
#include "transfer/control_stream.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/destination_write.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/source.h"

// What a case changes of an order.
struct file_order {
    std::string source = "from/file";
    std::string destination = "to/file";
    char type = 'B';
    char overwrite = 'N';
    char compress = '0';
    char restart = ftx_anew;
    char subdir = 'Y';
    bool wildcard = false;
    int repeats = 0;  // ftx_ah_idnr2
    int flags = FTX_CAN_CONTINUE;
    char coding = '2';
    char source_ends = 'L';
    char destination_ends = 'L';
    int reclen = 0;
};

struct transfer_files : module_test {
    std::unique_ptr<ftx_entry> source;
    std::unique_ptr<ftx_entry> destination;
    std::string stream;  // what went over

    static constexpr int id = 4711;

    void SetUp() override {
        module_test::SetUp();
        std::filesystem::create_directory(folder / "from");
        std::filesystem::create_directory(folder / "to");
        ftx_glb() = {};
        ftx_glb().ft_use_md5 = true;
    }
    void TearDown() override {
        source.reset();
        destination.reset();
        ftx_glb() = {};
        module_test::TearDown();
    }

    std::unique_ptr<ftx_entry> entry(const file_order& order, int role) {
        auto ftx = AllocFtxEntry(pcx);
        ftx->ftx_transfer_id = order.repeats == 0 ? id : id + 1;
        ftx->ftx_ah_idnr2 = order.repeats;
        ftx->home_dir = folder.path;
        ftx->source_file = order.source;
        ftx->destination_file = order.destination;
        ftx->ftx_type = order.type;
        ftx->ftx_overwrite = order.repeats != 0 ? 'Y' : order.overwrite;
        ftx->ftx_compress = order.compress;
        ftx->ftx_restart = order.restart;
        ftx->ftx_subdir = order.subdir;
        ftx->ftx_wildcard = order.wildcard ? 'Y' : 'N';
        ftx->ftx_flag = order.flags | role;
        ftx->ftx_text_coding = order.coding;
        ftx->ftx_separate = role == FTX_SENDER ? order.source_ends : order.destination_ends;
        ftx->ftx_reclen = order.reclen;
        ftx->ftx_progress = FTX_BETWEEN_FILES;
        ftx->ftx_rstrt_interval = 3600;
        ftx->buffer.reset(new unsigned char[ftx_buffer_size]);
        for (size_t i = 0; i < 256; ++i) {
            ftx->code_table[i] = static_cast<unsigned char>(role == FTX_SENDER ? i ^ 0x55 : 255 - i);
        }
        return ftx;
    }

    void prepare(const file_order& order) {
        source = entry(order, FTX_SENDER);
        destination = entry(order, FTX_RECEIVER);
        auto message = new_message<MSG_TYPE_FTXRECV>(client, number);
        message.ftxsndrcv.override = order.overwrite;
        const auto* bytes = reinterpret_cast<const unsigned char*>(&message);
        destination->order.assign(bytes, bytes + sizeof message);
    }

    // Makes the list, and the store in which a later run finds it.
    int list(qx7_error* err = nullptr) {
        qx7_error ignored;
        return ftx_create_filelist(source.get(), err == nullptr ? &ignored : err);
    }

    // One stream, of which the destination gets `most` bytes. False after an error on either side.
    bool send(size_t most = SIZE_MAX) {
        qx7_error error;
        stream.clear();
        destination->ftx_flag &= ~FTX_SYNC_SEEN;
        if (src_openCompress(source.get(), &error) != 0 || dst_openCompress(destination.get(), &error) != 0) {
            return false;
        }
        std::vector<char> block(32236);
        bool good = true;
        while (good && stream.size() < most) {
            const int length = csRead(source->compressor.get(), block.data(), static_cast<int>(block.size()),
                                      &source->message);
            if (length <= 0) {
                good = length == 0;
                break;
            }
            const auto part =
                static_cast<int>(std::min<size_t>(static_cast<size_t>(length), most - stream.size()));
            stream.append(block.data(), static_cast<size_t>(part));
            good = dcsWrite(destination->decompressor.get(), block.data(), part, &destination->message) == 0;
        }
        const bool whole = stream.size() < most;
        src_closeCompress(source.get());
        const int closed = dst_closeCompress(destination.get(), &error);
        dst_closeUnfinished(destination.get());
        return good && (closed == 0 || !whole);
    }

    bool run(const file_order& order) {
        prepare(order);
        return list() == 0 && send();
    }

    const ftx_elem& arrived(int oid = 0) { return destination->elements.at(oid); }
    const ftx_elem& sent_file(int oid = 0) { return source->elements.at(oid); }

    // Gives the destination one item of a partner. The code that ends the stream, 0 without.
    int give(int control, const ControlStream& item) {
        ErrMsg err{};
        dst_binWrite(destination.get(), item.data(), static_cast<int>(item.size()), 0, control, &err);
        return err.code;
    }
    int give_open(int oid, const std::string& name, int64_t size = 0) {
        ControlStream item;
        cbsPutInt(&item, "OID", oid);
        cbsPutString(&item, "FNAME", name);
        cbsPutInt64(&item, "SIZ", size);
        return give(CTRL_FILE_OPEN, item);
    }
    void give_data(const std::string& data) {
        ErrMsg err{};
        dst_binWrite(destination.get(), data.data(), static_cast<int>(data.size()), 0, CTRL_DATA, &err);
    }

    // All files below a folder, with their content; a folder ends in '/'.
    std::map<std::string, std::string> tree(const std::string& name) const {
        std::map<std::string, std::string> found;
        for (const auto& one : std::filesystem::recursive_directory_iterator(folder / name)) {
            const std::string path = one.path().string().substr((folder / name).size() + 1);
            if (one.is_directory()) {
                found[path + "/"];
            } else {
                found[path] = read_text(one.path().string());
            }
        }
        return found;
    }
};

inline std::string bytes_of(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    uint64_t state = seed * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        byte = static_cast<char>(state >> 56);
    }
    return bytes;
}
