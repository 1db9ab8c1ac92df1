#include "transfer/status_store.h"

#include <cstdio>
#include <cstring>

namespace {

struct stored_field {
    size_t offset;
    size_t size;
};

#define AREA(name) \
    { offsetof(FTX_AREA, name), sizeof(FTX_AREA::name) }
#define ELEM(name) \
    { offsetof(__ftx_elem, name), sizeof(__ftx_elem::name) }

// What the order or the question knows better than the file.
constexpr stored_field area_identity[] = {AREA(ftx_ID), AREA(ftx_transfer_id), AREA(ftx_ah_idnr2),
                                          AREA(ftx_UsrIdNr), AREA(ftx_Mandant)};

constexpr stored_field area_fields[] = {
    AREA(ftxsend_addr), AREA(ftx_filler1), AREA(ftx_sReverseConnect), AREA(ftx_sSvcList), AREA(ftx_etime),
    // totals
    AREA(ftx_compressed_size), AREA(ftx_size_total), AREA(ftx_files_total), AREA(ftx_nof_completed),
    AREA(ftx_nof_error), AREA(ftx_nof_active), AREA(ftx_nof_sent), AREA(ftx_max_oid), AREA(ftx_send_flag),
    AREA(ftx_report_block_size), AREA(ftx_report_curr_size), AREA(ftx_last_log_nr), AREA(src_origLength),
    AREA(dst_origLength),
    // hosts
    AREA(ftx_dst_host), AREA(ftx_src_host), AREA(ftx_connect_name), AREA(ftx_connect_ip),
    AREA(ftx_connect_port), AREA(ftx_src_hosttype), AREA(ftx_attr_connect_name), AREA(ftx_attr_connect_ip),
    AREA(ftx_attr_connect_port), AREA(ftx_attr_rifreq),
    // the order
    AREA(ftx_userLength), AREA(ftx_SrvSession), AREA(ftx_type), AREA(ftx_overwrite), AREA(ftx_erase),
    AREA(ftx_subdir), AREA(ftx_compress), AREA(ftx_restart), AREA(ftx_wildcard), AREA(ftx_file_attributes),
    AREA(ftx_status_flag),
    // progress
    AREA(ftx_progress), AREA(ftx_flag), AREA(ftx_rstrt_interval), AREA(ftx_async_quit_min),
    AREA(ftx_async_quit_max), AREA(ftx_async_quit_num), AREA(ftx_unquitted), AREA(ftx_nof_unquitted),
    AREA(ftx_packageid_current), AREA(ftx_sta_count), AREA(ftx_Used),
    // letters of the order, partners, ids
    AREA(ftx_send_item), AREA(ftx_separate), AREA(ftx_cr_folder), AREA(ftx_set_userid), AREA(ftx_Temp_File),
    AREA(ftx_text_coding), AREA(ftx_OwnerUid), AREA(ftx_OwnerGid), AREA(ftx_reclen), AREA(ftx_peer_txt),
    AREA(ftx_agent_modul), AREA(ftx_agent_acv), AREA(ftx_srv_partner), AREA(ftx_srv_modul), AREA(ftx_srv_acv),
    AREA(ftx_uid), AREA(ftx_gid), AREA(ftx_pw_uid), AREA(ftx_pw_gid),
    // result
    AREA(ftx_errno), AREA(ftx_msgNr), AREA(ftx_Insert), AREA(srv_session_counter)};

constexpr stored_field elem_fields[] = {
    ELEM(ftxe_msgnr),    ELEM(ftxe_errno),           ELEM(ftxe_text_coding),     ELEM(dst_file_alive),
    ELEM(dst_Temp_File), ELEM(dst_temp_alive),       ELEM(dst_filler_1),         ELEM(ftxe_startStamp),
    ELEM(ftxe_endStamp), ELEM(ftxe_fileSize),        ELEM(ftxe_rss_records),     ELEM(ftxe_lifeTime),
    ELEM(ftxe_oId),      ELEM(ftxe_transferedBytes), ELEM(ftxe_compressed_size), ELEM(ftxe_records),
    ELEM(ftxe_flag),     ELEM(ftxe_status)};

#undef AREA
#undef ELEM

template <class Record, size_t N>
void copy_fields(const stored_field (&fields)[N], const Record& from, Record* to) {
    for (const stored_field& field : fields) {
        memcpy(reinterpret_cast<char*>(to) + field.offset,
               reinterpret_cast<const char*>(&from) + field.offset, field.size);
    }
}

}  // namespace

FTX_AREA ftx_to_image(const FTX_AREA& area) {
    FTX_AREA image;
    memset(&image, 0, sizeof image);  // what pads the record, too
    copy_fields(area_identity, area, &image);
    copy_fields(area_fields, area, &image);
    return image;
}

void ftx_from_image(const FTX_AREA& image, FTX_AREA* area) {
    copy_fields(area_fields, image, area);
}

__ftx_elem ftxe_to_image(const __ftx_elem& elem) {
    __ftx_elem image;
    memset(&image, 0, sizeof image);
    copy_fields(elem_fields, elem, &image);
    return image;
}

void ftxe_from_image(const __ftx_elem& image, __ftx_elem* elem) {
    copy_fields(elem_fields, image, elem);
}

std::string ss_elementKey(int oid, const char* part) {
    return "OID-" + std::to_string(oid) + part;
}

std::string ss_reportKey(uint32_t id, int logNumber) {
    char text[40];
    snprintf(text, sizeof text, "RPT%.10u-%.8d", id, logNumber);
    return text;
}

std::string ss_getVersionText() {
    char text[96];
    snprintf(text, sizeof text, "VERSION(%lu),FTX_SIZE(%ld),FTXE_SIZE(%ld)", status_store_version,
             status_store_ftx_size, static_cast<long>(sizeof(__ftx_elem)));
    return text;
}

bool ss_checkVersionText(const std::string& found) {
    return found == ss_getVersionText();
}
