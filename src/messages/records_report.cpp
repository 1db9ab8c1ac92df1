// Compares the records with the catalogue; the file has no code.
#include "messages/records_report.h"

#include "messages/catalogue_common.h"
#include "messages/catalogue_report.h"
#include "messages/record_check.h"

namespace {

template <class Record, size_t N>
constexpr bool matches(const record_field (&fields)[N], size_t start) {
    return record_matches(report_catalogue, common_catalogue, Record::catalogue_name, start, sizeof(Record),
                          fields);
}

namespace check_REP_GET {
using Record = MSG_TYPE_REP_GET;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),     QX_FIELD(filename),  QX_FIELD(rep_ah_idnr), QX_FIELD(rep_rh_idnr),
    QX_FIELD(rep_type),    QX_FIELD(rep_blk),   QX_FIELD(blksize),     QX_FIELD(logininfo),
    QX_FIELD(passw),       QX_FIELD(erase),     QX_FIELD(maxrecords),  QX_FIELD(maxblk),
    QX_FIELD(match_dist),  QX_FIELD(match_len), QX_FIELD(code_dist),   QX_FIELD(code_len),
    QX_FIELD(transferred), QX_FIELD(pwd_dist),  QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_REP_GET

namespace check_REP_DATA {
using Record = MSG_TYPE_REP_DATA;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),    QX_FIELD(rep_ah_idnr), QX_FIELD(rep_rh_idnr),
                                   QX_FIELD(rep_type),   QX_FIELD(rep_blk),     QX_FIELD(totalsize),
                                   QX_FIELD(transfered), QX_FIELD(reccnt),      QX_FIELD(data_dist),
                                   QX_FIELD(data_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_REP_DATA

namespace check_REP_QUIT {
using Record = MSG_TYPE_REP_QUIT;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),   QX_FIELD(rep_ah_idnr), QX_FIELD(rep_rh_idnr),
                                   QX_FIELD(rep_type),  QX_FIELD(rep_blk),     QX_FIELD(msgnr),
                                   QX_FIELD(msg_insert)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_REP_QUIT

namespace check_REP_END {
using Record = MSG_TYPE_REP_END;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),   QX_FIELD(rep_ah_idnr), QX_FIELD(rep_type),
                                   QX_FIELD(rep_blk),   QX_FIELD(msgnr),       QX_FIELD(msg_insert),
                                   QX_FIELD(totalsize), QX_FIELD(transfered),  QX_FIELD(reccnt)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_REP_END

namespace check_REP_STOP {
using Record = MSG_TYPE_REP_STOP;
constexpr record_field fields[] = {QX_FIELD(host)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_REP_STOP

namespace check_PRCWRITE {
using Record = MSG_TYPE_PRCWRITE;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),   QX_FIELD(file_dist), QX_FIELD(file_len),  QX_FIELD(text_dist), QX_FIELD(text_len),
    QX_FIELD(code_dist), QX_FIELD(code_len),  QX_FIELD(attr_dist), QX_FIELD(attr_len),  QX_FIELD(mode),
    QX_FIELD(logininfo), QX_FIELD(passw),     QX_FIELD(pwd_dist),  QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_PRCWRITE

namespace check_RES_GET {
using Record = MSG_TYPE_RES_GET;
constexpr record_field fields[] = {QX_FIELD(client), QX_FIELD(type), QX_FIELD(name), QX_FIELD(key)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_RES_GET

namespace check_RES_DATA {
using Record = MSG_TYPE_RES_DATA;
constexpr record_field fields[] = {QX_FIELD(type), QX_FIELD(name), QX_FIELD(timestamp),
                                   QX_FIELD(content_dist), QX_FIELD(content_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_RES_DATA

namespace check_BIN_GET {
using Record = MSG_TYPE_BIN_GET;
constexpr record_field fields[] = {QX_FIELD(name),         QX_FIELD(subname), QX_FIELD(ah_idnr),
                                   QX_FIELD(hostattrtype), QX_FIELD(hw),      QX_FIELD(sw)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_BIN_GET

namespace check_BIN_DATA {
using Record = MSG_TYPE_BIN_DATA;
constexpr record_field fields[] = {QX_FIELD(type),         QX_FIELD(name),        QX_FIELD(timestamp),
                                   QX_FIELD(content_dist), QX_FIELD(content_len), QX_FIELD(ah_idnr),
                                   QX_FIELD(object_name),  QX_FIELD(file_type)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_BIN_DATA

namespace check_BIN_PUT {
using Record = MSG_TYPE_BIN_PUT;
constexpr record_field fields[] = {QX_FIELD(name),         QX_FIELD(subname),     QX_FIELD(overwrite),
                                   QX_FIELD(content_dist), QX_FIELD(content_len), QX_FIELD(file_name_len),
                                   QX_FIELD(hostattrtype), QX_FIELD(hw),          QX_FIELD(sw),
                                   QX_FIELD(cache_type),   QX_FIELD(replace_var), QX_FIELD(file_type),
                                   QX_FIELD(version)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_BIN_PUT

}  // namespace
