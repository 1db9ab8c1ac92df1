#include "transfer/legacy/area.h"

#include <algorithm>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "transfer/legacy/destination.h"
#include "transfer/legacy/directory.h"
#include "transfer/legacy/module.h"

namespace {

struct ft_state {
    ft_settings settings;
    std::list<std::unique_ptr<FT_AREA>> areas;
    std::list<ft_pending_rename> renames;
};

ft_state& state() {
    static ft_state all;
    return all;
}

bool remove_file_allowed(EX_PCX* pcx) {
    return pcx->getProfileBool(pcx, "FT", "FtRemoveFile", "YES");
}

}  // namespace

ft_settings& ft_config() {
    return state().settings;
}

std::list<std::unique_ptr<FT_AREA>>& firstFT() {
    return state().areas;
}

std::list<ft_pending_rename>& ft_pending_renames() {
    return state().renames;
}

FT_AREA::~FT_AREA() {
    csClose(compressor);
    ErrMsg nobody_waits_for_it;
    dcsClose(decompressor, &nobody_waits_for_it);
}

int64_t FT_AREA::covered_bytes() const {
    if (destination) {
        return transferedBytes;
    }
    const int64_t ends = text() ? 2 * static_cast<int64_t>(Used[1]) : 0;
    return resumed_bytes + Used[0] + ends;
}

int64_t FT_AREA::covered_records() const {
    return destination ? recCount : resumed_records + (text() ? Used[1] : 0);
}

FT_AREA* find_ft_area(int transfer_id, bool destination, int channel) {
    for (const auto& area : firstFT()) {
        if (area->transfer_id == transfer_id && area->destination == destination &&
            (channel == 0 || area->channel == channel)) {
            return area.get();
        }
    }
    return nullptr;
}

FT_AREA* add_ft_area(std::unique_ptr<FT_AREA> area) {
    firstFT().push_back(std::move(area));
    return firstFT().back().get();
}

void Delete_FtArea(FT_AREA* area) {
    firstFT().remove_if([area](const auto& each) { return each.get() == area; });
}

int ft_fail(FT_AREA* area, int number, std::string_view insert) {
    if (area->Result == 0) {
        area->Result = number;
        area->ft_Insert = printable(insert.substr(0, qx_insert_size - 1));
    }
    return -1;
}

int ft_call_failed(FT_AREA* area, std::string_view call, std::string_view file, int error_number) {
    return ft_fail(area, number_file_call, call_insert(call, file, error_number));
}

void ft_log_end(const FT_AREA* area) {
    __log(area->Result == 0 ? number_transfer_ended : number_transfer_failed, "%d|", area->transfer_id);
}

int FT_Open(EX_PCX* pcx, size_t message_size) {
    FT_after_fork(pcx);
    ft_settings& settings = ft_config();
    settings.message_size = message_size;
    settings.link_files = pcx->getProfileBool(pcx, "MISC", "FT_Linkfiles", "no");
    settings.rename_file = remove_file_allowed(pcx);
    settings.end_delimiter = pcx->getProfileBool(pcx, "MISC", "FileEndDelimiter", "no");
    settings.remove_check = pcx->getProfileBool(pcx, "MISC", "FileRemoveCheck", "yes");
    settings.resume = pcx->getProfileBool(pcx, "GLOBAL", "ft_checkpoint", "yes");
    // Until a logon tells more.
    pcx->pcx_FtPwCheck = pcx->getProfileBool(pcx, "GLOBAL", "login_check", "no");
    return 0;
}

int FT_Close(EX_PCX* pcx) {
    for (const auto& area : firstFT()) {
        ft_fail(area.get(), number_transfer_connection_closed, std::to_string(area->transfer_id) + "|");
        target_give_up(area.get());
        ft_log_end(area.get());
    }
    return FT_after_fork(pcx);
}

int FT_after_fork(EX_PCX*) {
    firstFT().clear();
    ft_pending_renames().clear();
    ft_forget_lists();
    return 0;
}

bool FT_IsActive() {
    return !firstFT().empty() || ft_lists_under_way() > 0;
}
