// Compares the records with the catalogue; the file has no code.
#include "messages/records_server.h"

#include "messages/catalogue_common.h"
#include "messages/catalogue_server.h"
#include "messages/record_check.h"

namespace {

template <class Record, size_t N>
constexpr bool matches(const record_field (&fields)[N], size_t start) {
    return record_matches(server_catalogue, common_catalogue, Record::catalogue_name, start, sizeof(Record),
                          fields);
}

namespace check_EXSTART2 {
using Record = MSG_TYPE_EXSTART2;
constexpr record_field fields[] = {
    QX_FIELD(host),       QX_FIELD(hw),        QX_FIELD(sw),        QX_FIELD(sw_vers),   QX_FIELD(version),
    QX_FIELD(reserved1),  QX_FIELD(starttype), QX_FIELD(processid), QX_FIELD(daylight),  QX_FIELD(ah_idnr),
    QX_FIELD(rep_type),   QX_FIELD(service),   QX_FIELD(starttime), QX_FIELD(acttime),   QX_FIELD(zeitzone),
    QX_FIELD(ipadr),      QX_FIELD(ipport),    QX_FIELD(codename),  QX_FIELD(jclvar),    QX_FIELD(varanz),
    QX_FIELD(vardist),    QX_FIELD(cpu_count), QX_FIELD(erp_user1), QX_FIELD(erp_user2), QX_FIELD(erp_user3),
    QX_FIELD(erp_user4),  QX_FIELD(erp_user5), QX_FIELD(ds),        QX_FIELD(inilen),    QX_FIELD(inidist),
    QX_FIELD(Components), QX_FIELD(conn_id)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXSTART2

namespace check_EXSTRTQ2 {
using Record = MSG_TYPE_EXSTRTQ2;
constexpr record_field fields[] = {
    QX_FIELD(system_name),    QX_FIELD(version),        QX_FIELD(rep_type),         QX_FIELD(code_dist),
    QX_FIELD(code_len),       QX_FIELD(ip_dist),        QX_FIELD(ip_len),           QX_FIELD(conntab_dist),
    QX_FIELD(conntab_entrs),  QX_FIELD(valuetab_dist),  QX_FIELD(valuetab_entrs),   QX_FIELD(charset),
    QX_FIELD(use_event),      QX_FIELD(anonymous_job),  QX_FIELD(anonymous_ft),     QX_FIELD(log_to_db),
    QX_FIELD(enc_comp),       QX_FIELD(anonymous_fe),   QX_FIELD(ah_idnr),          QX_FIELD(job_check),
    QX_FIELD(keep_alive),     QX_FIELD(reconnect),      QX_FIELD(report),           QX_FIELD(blksize),
    QX_FIELD(cmd_timeout),    QX_FIELD(component),      QX_FIELD(compTimeStamp),    QX_FIELD(perfcounter),
    QX_FIELD(max_file_count), QX_FIELD(check_interval), QX_FIELD(ft_rst_life),      QX_FIELD(rb_rt_time),
    QX_FIELD(rb_rt_check),    QX_FIELD(ft_rst_check),   QX_FIELD(ft_stat_timer),    QX_FIELD(ft_rst_timer),
    QX_FIELD(ft_con_timeout), QX_FIELD(ft_report_time), QX_FIELD(ft_use_md5),       QX_FIELD(fe_version),
    QX_FIELD(token),          QX_FIELD(settings_dist),  QX_FIELD(settings_entries), QX_FIELD(msg_timestamp),
    QX_FIELD(chglog_intvl),   QX_FIELD(chglog_size)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXSTRTQ2

namespace check_EXSTOP {
using Record = MSG_TYPE_EXSTOP;
constexpr record_field fields[] = {QX_FIELD(host), QX_FIELD(conn_id)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXSTOP

namespace check_EXQUERY {
using Record = MSG_TYPE_EXQUERY;
constexpr record_field fields[] = {QX_FIELD(srvtime), QX_FIELD(ping1), QX_FIELD(ping2), QX_FIELD(connection),
                                   QX_FIELD(connection_ts)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXQUERY

namespace check_EXINFO {
using Record = MSG_TYPE_EXINFO;
constexpr record_field fields[] = {
    QX_FIELD(srvtime),  QX_FIELD(extime),       QX_FIELD(ping1),   QX_FIELD(ping2),      QX_FIELD(ftcount),
    QX_FIELD(jobcount), QX_FIELD(connectcount), QX_FIELD(cputime), QX_FIELD(iocount),    QX_FIELD(sysflag),
    QX_FIELD(pcount),   QX_FIELD(LastCheck),    QX_FIELD(msg_nr),  QX_FIELD(msg_insert), QX_FIELD(hardware),
    QX_FIELD(software), QX_FIELD(sw_version)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXINFO

namespace check_SRVQUERY {
using Record = MSG_TYPE_SRVQUERY;
constexpr record_field fields[] = {QX_FIELD(extime), QX_FIELD(anonym)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_SRVQUERY

namespace check_SRVINFO {
using Record = MSG_TYPE_SRVINFO;
constexpr record_field fields[] = {QX_FIELD(extime), QX_FIELD(srtime), QX_FIELD(anonym)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_SRVINFO

namespace check_CONNECT {
using Record = MSG_TYPE_CONNECT;
constexpr record_field fields[] = {QX_FIELD(name), QX_FIELD(ipaddr), QX_FIELD(port), QX_FIELD(gss_dist),
                                   QX_FIELD(gss_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_CONNECT

namespace check_TRCGET {
using Record = MSG_TYPE_TRCGET;
constexpr record_field fields[] = {QX_FIELD(host)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_TRCGET

namespace check_TRCSET {
using Record = MSG_TYPE_TRCSET;
constexpr record_field fields[] = {
    QX_FIELD(host),           QX_FIELD(flags),        QX_FIELD(max_task),         QX_FIELD(keep_alive),
    QX_FIELD(max_report),     QX_FIELD(log_mb),       QX_FIELD(log_days),         QX_FIELD(min_envt_int),
    QX_FIELD(res_api_users),  QX_FIELD(last_use),     QX_FIELD(max_ft),           QX_FIELD(max_size),
    QX_FIELD(trigger_type),   QX_FIELD(mem_trace),    QX_FIELD(dump_memory),      QX_FIELD(force_trace),
    QX_FIELD(trigger_len),    QX_FIELD(trigger_dist), QX_FIELD(zwang_info_msgnr), QX_FIELD(zwang_info_len),
    QX_FIELD(zwang_info_dist)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_TRCSET

namespace check_CHGLOG {
using Record = MSG_TYPE_CHGLOG;
constexpr record_field fields[] = {QX_FIELD(rtyp), QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_CHGLOG

namespace check_CHGLOGQU {
using Record = MSG_TYPE_CHGLOGQU;
constexpr record_field fields[] = {QX_FIELD(ah_idnr_old), QX_FIELD(ah_idnr_new), QX_FIELD(timestamp),
                                   QX_FIELD(rep_count), QX_FIELD(wp_name)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_CHGLOGQU

namespace check_CHGLOGR {
using Record = MSG_TYPE_CHGLOGR;
constexpr record_field fields[] = {QX_FIELD(ah_idnr_old)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_CHGLOGR

namespace check_WRITE {
using Record = MSG_TYPE_WRITE;
constexpr record_field fields[] = {QX_FIELD(typ),       QX_FIELD(ah_idnr), QX_FIELD(timestamp),
                                   QX_FIELD(msgnr),     QX_FIELD(blksize), QX_FIELD(inhalt_dist),
                                   QX_FIELD(inhalt_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_WRITE

namespace check_SNDMAIL {
using Record = MSG_TYPE_SNDMAIL;
constexpr record_field fields[] = {QX_FIELD(subject), QX_FIELD(ah_idnr), QX_FIELD(dist), QX_FIELD(entries)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_SNDMAIL

namespace check_SNDMAIL2 {
using Record = MSG_TYPE_SNDMAIL2;
constexpr record_field fields[] = {QX_FIELD(subject), QX_FIELD(ah_idnr), QX_FIELD(dist), QX_FIELD(entries)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_SNDMAIL2

namespace check_EX_CLEAN {
using Record = MSG_TYPE_EX_CLEAN;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EX_CLEAN

namespace check_EX_UPGRD {
using Record = MSG_TYPE_EX_UPGRD;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(cau_report), QX_FIELD(bintab_dist),
                                   QX_FIELD(bintab_entries)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EX_UPGRD

namespace check_EX_UPCAN {
using Record = MSG_TYPE_EX_UPCAN;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EX_UPCAN

namespace check_QUITT {
using Record = MSG_TYPE_QUITT;
constexpr record_field fields[] = {QX_FIELD(quitt),  QX_FIELD(msg),        QX_FIELD(msg2),
                                   QX_FIELD(msgnr),  QX_FIELD(msg_insert), QX_FIELD(msg_dist),
                                   QX_FIELD(msg_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_QUITT

}  // namespace
