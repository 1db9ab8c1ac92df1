// Settings and state of the module, and what becomes of its transfers when a process ends or is forked.
#include "transfer/ftx/module.h"

#include <algorithm>

#include "base/context.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "channels/messages.h"
#include "log/log.h"
#include "transfer/ftx/destination.h"
#include "transfer/ftx/entry.h"
#include "transfer/ftx/source.h"
#include "transfer/ftx/store.h"

namespace {

std::string setting(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char text[qx_path_size];
    pcx->getProfileString(pcx, section, key, preset, text, sizeof text);
    return text;
}

char owner_of(const std::string& word) {
    if (equal_ignore_case(word, "PARENT")) {
        return 'p';
    }
    return equal_ignore_case(word, "USER") ? 'u' : 'n';
}

void read_owners(EX_PCX* pcx, FTX_GLB* glb) {
    const bool directory = upper(setting(pcx, "GLOBAL", "FT_Owner", "user")).starts_with("DIR");
    glb->fgx_Owner = directory ? 'd' : 'n';
    glb->fgx_Owner_uid = owner_of(setting(pcx, "GLOBAL", "FT_uid", "none"));
    glb->fgx_Owner_gid = owner_of(setting(pcx, "GLOBAL", "FT_gid", directory ? "parent" : "none"));
}

// A descriptor stays with the entry, so nothing of it may be open behind this.
void close_files(ftx_entry* entry) {
    if (entry->is_sender()) {
        src_closeFile(entry);
    } else {
        dst_closeUnfinished(entry);
        dst_settle(entry);
    }
}

void note_break(ftx_entry* entry) {
    __log(number_transfer_connection_closed, "%d|", entry->ftx_transfer_id);
    entry->ftx_flag |= FTX_END_LOGGED;
    entry->ftx_status_flag = FTX_STATUS_ERROR;
    entry->ftx_progress = FTX_FINISHED;
    ftx_set_message(entry, number_transfer_connection_lost, std::to_string(entry->ftx_transfer_id) + "|");
}

// The store keeps the end for whoever asks later; nothing is sent any more.
void save_end(ftx_entry* entry) {
    qx7_error error;
    entry->ftx_send_flag |= FTX_SEND_EXHAUSTED;
    if (entry->store != nullptr && ss_saveFTX(entry, &error) != 0) {
        __log_error(error);
    }
}

void end_transfer(EX_PCX* pcx, ftx_entry* entry) {
    if (entry->has(FTX_DELETED)) {
        return;
    }
    const bool open = entry->ftx_progress != FTX_FINISHED;
    if (open) {
        note_break(entry);
    }
    close_files(entry);
    if (entry->is_sender()) {
        if (open) {
            save_end(entry);
        }
    } else if (pcx->ccm != nullptr && entry->partnerID != 0) {
        ccm_channel_deletebyID(pcx->ccm, entry->partnerID);
    }
}

}  // namespace

FTX_GLB& ftx_glb() {
    static FTX_GLB glb;
    return glb;
}

char GetFtTempFile() {
    return ftx_glb().fgx_Temp_File;
}

int FTX_Open(EX_PCX* pcx, qx7_error*) {
    FTX_GLB& glb = ftx_glb();
    glb = FTX_GLB{};
    glb.fgx_TmpTemplate = setting(pcx, "FILETRANSFER", "ft_template", "T&runtxt.tmp");
    read_owners(pcx, &glb);
    glb.fgx_Temp_File = pcx->getProfileBool(pcx, "GLOBAL", "ft_temp_file", "yes") ? '1' : '0';
    glb.fgx_fsSpaceCheck = pcx->getProfileBool(pcx, "FILETRANSFER", "ft_check_free_disk_space", "no");
    glb.fgx_Performance_Test = pcx->getProfileBool(pcx, "MISC", "FT_Performance_Test", "no");
    if (glb.fgx_Performance_Test) {
        glb.fgx_Temp_File = '0';
    }
    glb.fgx_Linkfiles = pcx->getProfileBool(pcx, "FILETRANSFER", "FT_Linkfiles", "no");
    const int timeout = pcx->getProfileInt(pcx, "FILETRANSFER", "ft_ConnectingTimeout", "10");
    glb.ftx_connectionTimeout = timeout < 1 ? 1 : timeout;
    glb.fgx_ftxinf_simulation = pcx->getProfileBool(pcx, "FILETRANSFER", "ftxinf_simulation", "no");
    glb.fgx_host_resolving = pcx->getProfileBool(pcx, "FILETRANSFER", "FT_HostResolving", "yes");
    glb.ftx_delayed_shutdown =
        std::max(0, pcx->getProfileInt(pcx, "FILETRANSFER", "ft_delayed_shutdown", "0"));
    return 0;
}

int FTX_Close(EX_PCX* pcx) {
    for (const auto& entry : ftx_entries()) {
        end_transfer(pcx, entry.get());
    }
    ftx_entries().clear();
    ftx_glb() = FTX_GLB{};
    return 0;
}

int FTX_after_fork(EX_PCX*) {
    const ftx_entry* own = ftx_entry_of_worker();
    ftx_entries().remove_if([own](const auto& entry) { return entry.get() != own; });
    ftx_glb().reverse_connect_queue.clear();
    ftx_glb().ftxpq.clear();
    return 0;
}

bool ftx_is_known(int ah_idnr) {
    const auto& areas = ftx_glb().reverse_connect_queue;
    return getFtxByIdnr(ah_idnr) != nullptr || ftx_worker_of(ah_idnr) != nullptr ||
           std::any_of(areas.begin(), areas.end(),
                       [ah_idnr](const auto& area) { return area.ah_idnr == ah_idnr; });
}
