// Transfers of the sender's side for tests of their store and report.
#pragma once

#include "channels/ipc_records.h"
#include "module_fixture.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/protocol.h"
#include "transfer/ftx/store.h"
#include "transfer/status_store.h"

struct ftx_store_test : module_test {
    static constexpr int id = 4711;
    qx7_error err;

    void TearDown() override {
        ftx_entries().clear();
        module_test::TearDown();
    }

    std::unique_ptr<ftx_entry> make(char restart, int transfer = id, int repeat = 0) {
        auto entry = AllocFtxEntry(pcx);
        entry->ftx_transfer_id = transfer;
        entry->ftx_ah_idnr2 = repeat;
        entry->ftx_Mandant = client;
        entry->ftx_UsrIdNr = number;
        entry->ftx_flag = FTX_SENDER;
        entry->ftx_restart = restart;
        entry->ftx_status_flag = FTX_STATUS_RUNNING;
        entry->ftx_progress = FTX_BETWEEN_FILES;
        entry->source_file = "/data/*";
        entry->destination_file = "/in/*";
        return entry;
    }

    // An element as the list of files makes it.
    static ftx_elem* add_file(ftx_entry* ftx, const std::string& name, int64_t size, int kind = FTXE_FILE) {
        ftx_elem* const elem = ftxe_addnew(ftx, static_cast<int>(ftx->elements.size()));
        elem->source_name = name;
        elem->ftxe_fileSize = size;
        elem->ftxe_flag |= kind | FTXE_SAVE_SOURCE;
        return elem;
    }

    // The first run of a transfer up to its whole list.
    std::unique_ptr<ftx_entry> started(int files, char restart = ftx_anew) {
        auto ftx = make(restart);
        EXPECT_EQ(ss_saveFTX(ftx.get(), &err), 0) << err.qx_msgInsert;
        for (int i = 0; i < files; ++i) {
            save(ftx.get(), add_file(ftx.get(), "/data/" + std::to_string(i), 1000 + i));
        }
        ftx->ftx_files_total = files;
        EXPECT_EQ(ss_saveFTX(ftx.get(), &err), 0) << err.qx_msgInsert;
        return ftx;
    }

    void save(ftx_entry* ftx, ftx_elem* elem) {
        EXPECT_EQ(ss_saveFTXE(ftx, elem, &err), 0) << err.qx_msgInsert;
    }

    std::string store_path(int transfer = id) const { return ss_fileName(pcx, transfer); }

    // Changes the store behind everybody's back.
    void put_raw(std::string_view key, const std::string& value) {
        kvstore db;
        ASSERT_EQ(kvstore_open(&db, store_path().c_str(), kvstore_existing, &err), 0) << err.qx_msgInsert;
        ASSERT_EQ(kvstore_put(&db, key, value.data(), value.size(), &err), 0);
    }
    std::string get_raw(std::string_view key) {
        kvstore db;
        std::string value(8192, '\0');
        size_t len = value.size();
        EXPECT_EQ(kvstore_open(&db, store_path().c_str(), kvstore_peek, &err), 0) << err.qx_msgInsert;
        const int64_t n = kvstore_get(&db, key, value.data(), &len, &err);
        return value.substr(0, n < 0 ? 0 : static_cast<size_t>(n));
    }

    // What a worker sent to the server by its agent.
    std::vector<sent_message> routed() {
        std::vector<sent_message> all;
        for (const sent_message& record : sent()) {
            ipcmsg_routenat_t route;
            if (record.body.size() < sizeof route || record.type() != "ROUTENAT") {
                continue;
            }
            memcpy(&route, record.body.data(), sizeof route);
            all.push_back({route.addr, message_bytes(record.body.begin() + sizeof route, record.body.end())});
        }
        return all;
    }
};
