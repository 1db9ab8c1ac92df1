// The list of transfers of this process.
#include "transfer/ftx/entry.h"

#include <algorithm>
#include <cstring>

#include "base/text.h"

namespace {

constexpr char entry_mark[] = "%%FILETRANSFER%%";

template <class Condition>
ftx_entry* find_entry(Condition wanted) {
    for (const std::unique_ptr<ftx_entry>& entry : ftx_entries()) {
        if (!entry->has(FTX_DELETED) && wanted(*entry)) {
            return entry.get();
        }
    }
    return nullptr;
}

}  // namespace

std::list<std::unique_ptr<ftx_entry>>& ftx_entries() {
    static std::list<std::unique_ptr<ftx_entry>> entries;
    return entries;
}

std::unique_ptr<ftx_entry> AllocFtxEntry(EX_PCX* pcx) {
    auto entry = std::make_unique<ftx_entry>();
    static_assert(sizeof entry_mark - 1 == sizeof entry->ftx_ID);
    memcpy(entry->ftx_ID, entry_mark, sizeof entry->ftx_ID);
    entry->pcx = pcx;
    return entry;
}

ftx_entry* AddFtxEntry(std::unique_ptr<ftx_entry> entry) {
    return ftx_entries().emplace_back(std::move(entry)).get();
}

ftx_entry* getFtxByIdnr(int ah_idnr) {
    return find_entry([ah_idnr](const ftx_entry& entry) { return entry.ftx_transfer_id == ah_idnr; });
}

ftx_entry* getFtxByPartnerID(int channel) {
    return find_entry([channel](const ftx_entry& entry) { return entry.partnerID == channel; });
}

std::unique_ptr<ftx_entry> ftx_unchain_entry(ftx_entry* entry) {
    auto& entries = ftx_entries();
    const auto found =
        std::find_if(entries.begin(), entries.end(), [entry](const auto& one) { return one.get() == entry; });
    if (found == entries.end()) {
        return nullptr;
    }
    std::unique_ptr<ftx_entry> owned = std::move(*found);
    entries.erase(found);
    return owned;
}

void FreeFtxEntry(ftx_entry* entry) {
    ftx_unchain_entry(entry);
}

void ftx_deleteFtx(ftx_entry* entry) {
    entry->ftx_flag |= FTX_DELETED;
}

void ftx_set_message(ftx_entry* ftx, int number, std::string_view insert) {
    ftx->ftx_msgNr = number;
    copy_text(ftx->ftx_Insert, insert);
}
