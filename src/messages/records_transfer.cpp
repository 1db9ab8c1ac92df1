// Compares the records with the catalogue; the file has no code.
#include "messages/records_transfer.h"

#include "messages/catalogue_common.h"
#include "messages/catalogue_transfer.h"
#include "messages/record_check.h"

namespace {

template <class Record, size_t N>
constexpr bool matches(const record_field (&fields)[N], size_t start) {
    return record_matches(transfer_catalogue, common_catalogue, Record::catalogue_name, start, sizeof(Record),
                          fields);
}

namespace check_FT_SENDU {
using Record = MSG_TYPE_FT_SENDU;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),       QX_FIELD(src_file),     QX_FIELD(reserv1),       QX_FIELD(src_logininfo),
    QX_FIELD(dst_host),      QX_FIELD(dst_file),     QX_FIELD(reserv2),       QX_FIELD(dst_logininfo),
    QX_FIELD(type),          QX_FIELD(ov),           QX_FIELD(erase),         QX_FIELD(folder),
    QX_FIELD(compress),      QX_FIELD(maxrecords),   QX_FIELD(rec_start),     QX_FIELD(rec_end),
    QX_FIELD(col_start),     QX_FIELD(col_end),      QX_FIELD(dataqu),        QX_FIELD(src_passw),
    QX_FIELD(dst_passw),     QX_FIELD(flag),         QX_FIELD(possend),       QX_FIELD(posrecv),
    QX_FIELD(rest_dist),     QX_FIELD(rest_len),     QX_FIELD(src_code_dist), QX_FIELD(src_code_len),
    QX_FIELD(dst_code_dist), QX_FIELD(dst_code_len), QX_FIELD(cont_dist),     QX_FIELD(cont_len),
    QX_FIELD(src_pwd_dist),  QX_FIELD(src_pwd_len),  QX_FIELD(dst_pwd_dist),  QX_FIELD(dst_pwd_len)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_FT_SENDU

namespace check_FT_FILEG {
using Record = MSG_TYPE_FT_FILEG;
constexpr record_field fields[] = {QX_FIELD(path), QX_FIELD(filename)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_FT_FILEG

namespace check_FTXSNDRCV {
using Record = MSG_TYPE_FTXSNDRCV;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),        QX_FIELD(ah_idnr2),       QX_FIELD(src_file_dist), QX_FIELD(src_file_len),
    QX_FIELD(dst_file_dist),  QX_FIELD(dst_file_len),   QX_FIELD(src_logininfo), QX_FIELD(src_passw),
    QX_FIELD(dst_logininfo),  QX_FIELD(dst_passw),      QX_FIELD(dst_host),      QX_FIELD(src_fs_type),
    QX_FIELD(type),           QX_FIELD(override),       QX_FIELD(erase),         QX_FIELD(subdir),
    QX_FIELD(compress),       QX_FIELD(restart),        QX_FIELD(wildcard),      QX_FIELD(file_attributes),
    QX_FIELD(connect_name),   QX_FIELD(connect_ip),     QX_FIELD(connect_port),  QX_FIELD(async_quit_min),
    QX_FIELD(async_quit_max), QX_FIELD(async_quit_num), QX_FIELD(src_code_dist), QX_FIELD(src_code_len),
    QX_FIELD(dst_code_dist),  QX_FIELD(dst_code_len),   QX_FIELD(gss_dist),      QX_FIELD(gss_len),
    QX_FIELD(rest_dist),      QX_FIELD(rest_len),       QX_FIELD(svc_list),      QX_FIELD(abort_on_error),
    QX_FIELD(can_continue),   QX_FIELD(subdirstruct),   QX_FIELD(src_pwd_dist),  QX_FIELD(src_pwd_len),
    QX_FIELD(dst_pwd_dist),   QX_FIELD(dst_pwd_len)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_FTXSNDRCV

namespace check_FTXQUIT_RECORD {
using Record = MSG_TYPE_FTXQUIT_RECORD;
constexpr record_field fields[] = {QX_FIELD(file_id),      QX_FIELD(status_flag), QX_FIELD(filesize),
                                   QX_FIELD(dstname_dist), QX_FIELD(dstname_len), QX_FIELD(msl_id),
                                   QX_FIELD(msl_dist),     QX_FIELD(msl_len),     QX_FIELD(res_dist),
                                   QX_FIELD(res_len)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_FTXQUIT_RECORD

namespace check_FTXWRITE_RECORD {
using Record = MSG_TYPE_FTXWRITE_RECORD;
constexpr record_field fields[] = {QX_FIELD(timestamp), QX_FIELD(msl_id), QX_FIELD(msl_dist),
                                   QX_FIELD(msl_len)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_FTXWRITE_RECORD

namespace check_FTXSEND {
using Record = MSG_TYPE_FTXSEND;
constexpr record_field fields[] = {QX_FIELD(ftxsndrcv)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXSEND

namespace check_FTXSENDQ {
using Record = MSG_TYPE_FTXSENDQ;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(files_total), QX_FIELD(size_total),
                                   QX_FIELD(msl_no),  QX_FIELD(msl_dist),    QX_FIELD(msl_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXSENDQ

namespace check_FTXRECV {
using Record = MSG_TYPE_FTXRECV;
constexpr record_field fields[] = {QX_FIELD(ftxsndrcv)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXRECV

namespace check_FTXRECVQ {
using Record = MSG_TYPE_FTXRECVQ;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(can_continue), QX_FIELD(svc_list),
                                   QX_FIELD(msl_no),  QX_FIELD(msl_dist),     QX_FIELD(msl_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXRECVQ

namespace check_FTXDATA {
using Record = MSG_TYPE_FTXDATA;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXDATA

namespace check_FTXQUIT {
using Record = MSG_TYPE_FTXQUIT;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(count), QX_FIELD(flag)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXQUIT

namespace check_FTXEND {
using Record = MSG_TYPE_FTXEND;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(msl_no), QX_FIELD(msl_dist),
                                   QX_FIELD(msl_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXEND

namespace check_FTXENDQ {
using Record = MSG_TYPE_FTXENDQ;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXENDQ

namespace check_FTXSTA {
using Record = MSG_TYPE_FTXSTA;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),         QX_FIELD(files_total),     QX_FIELD(files_sent), QX_FIELD(files_successful),
    QX_FIELD(file_size),       QX_FIELD(status_flag),     QX_FIELD(dir_total),  QX_FIELD(sent_size),
    QX_FIELD(compressed_size), QX_FIELD(datastream_size), QX_FIELD(count),      QX_FIELD(dir_sent),
    QX_FIELD(end_time),        QX_FIELD(records),         QX_FIELD(msl_no),     QX_FIELD(msl_dist),
    QX_FIELD(msl_len),         QX_FIELD(dir_successfull)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXSTA

namespace check_FTXCANC {
using Record = MSG_TYPE_FTXCANC;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXCANC

namespace check_FTXDEL {
using Record = MSG_TYPE_FTXDEL;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXDEL

namespace check_FTXINF {
using Record = MSG_TYPE_FTXINF;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(ref_ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXINF

namespace check_FTXREPG {
using Record = MSG_TYPE_FTXREPG;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(block_size), QX_FIELD(last_id)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXREPG

namespace check_FTXWRITE {
using Record = MSG_TYPE_FTXWRITE;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(status), QX_FIELD(last_id), QX_FIELD(count)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FTXWRITE

namespace check_FT_SEND {
using Record = MSG_TYPE_FT_SEND;
constexpr record_field fields[] = {QX_FIELD(ft_send)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_SEND

namespace check_FT_RECV {
using Record = MSG_TYPE_FT_RECV;
constexpr record_field fields[] = {QX_FIELD(ft_recv)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_RECV

namespace check_FT_DATA {
using Record = MSG_TYPE_FT_DATA;
constexpr record_field fields[] = {QX_FIELD(i4transid)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_DATA

namespace check_FT_END {
using Record = MSG_TYPE_FT_END;
constexpr record_field fields[] = {QX_FIELD(i4transid), QX_FIELD(cRecDelim), QX_FIELD(i4retcode),
                                   QX_FIELD(crettext),  QX_FIELD(stp_dist),  QX_FIELD(stp_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_END

namespace check_FT_QUIT {
using Record = MSG_TYPE_FT_QUIT;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),      QX_FIELD(acv),        QX_FIELD(ts),
                                   QX_FIELD(msgnr),        QX_FIELD(msg_insert), QX_FIELD(flagResume),
                                   QX_FIELD(filesize),     QX_FIELD(anzahl),     QX_FIELD(records),
                                   QX_FIELD(anzahl_compr), QX_FIELD(stp_dist),   QX_FIELD(stp_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_QUIT

namespace check_FT_STA {
using Record = MSG_TYPE_FT_STA;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),  QX_FIELD(cnt),     QX_FIELD(filesize),
                                   QX_FIELD(anzahl),   QX_FIELD(records), QX_FIELD(anzahl_compr),
                                   QX_FIELD(stp_dist), QX_FIELD(stp_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_STA

namespace check_FT_CAN {
using Record = MSG_TYPE_FT_CAN;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_CAN

namespace check_FT_DIR {
using Record = MSG_TYPE_FT_DIR;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),   QX_FIELD(filename), QX_FIELD(folder),
                                   QX_FIELD(logininfo), QX_FIELD(passw),    QX_FIELD(rest_dist),
                                   QX_FIELD(rest_len),  QX_FIELD(pwd_dist), QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_DIR

namespace check_FT_FILE {
using Record = MSG_TYPE_FT_FILE;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(fileanz)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_FILE

namespace check_FT_STOP {
using Record = MSG_TYPE_FT_STOP;
constexpr record_field fields[] = {QX_FIELD(i4transid), QX_FIELD(cpeer)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FT_STOP

}  // namespace
