// Compares the records with the catalogue; the file has no code.
#include "messages/records_common.h"

#include "messages/catalogue_common.h"
#include "messages/record_check.h"

namespace {

template <class Record, size_t N>
constexpr bool matches(const record_field (&fields)[N], size_t start) {
    return record_matches(common_catalogue, common_catalogue, Record::catalogue_name, start, sizeof(Record),
                          fields);
}

namespace check_ABS_TIME {
using Record = MSG_TYPE_ABS_TIME;
constexpr record_field fields[] = {QX_FIELD(hh), QX_FIELD(mm), QX_FIELD(ss)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_ABS_TIME

namespace check_ABS_TIME2 {
using Record = MSG_TYPE_ABS_TIME2;
constexpr record_field fields[] = {QX_FIELD(abs2_hh), QX_FIELD(abs2_mm), QX_FIELD(abs2_ss)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_ABS_TIME2

namespace check_TIMESTAMP {
using Record = MSG_TYPE_TIMESTAMP;
constexpr record_field fields[] = {QX_FIELD(jjjj), QX_FIELD(mo), QX_FIELD(tt), QX_FIELD(hh),
                                   QX_FIELD(mi),   QX_FIELD(ss), QX_FIELD(ns)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_TIMESTAMP

namespace check_CONNTAB1 {
using Record = MSG_TYPE_CONNTAB1;
constexpr record_field fields[] = {QX_FIELD(component), QX_FIELD(connection), QX_FIELD(connTimeStamp)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_CONNTAB1

namespace check_DS {
using Record = MSG_TYPE_DS;
constexpr record_field fields[] = {QX_FIELD(dyn_service)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_DS

namespace check_INFOTEXT {
using Record = MSG_TYPE_INFOTEXT;
constexpr record_field fields[] = {QX_FIELD(last_rp), QX_FIELD(infotext)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_INFOTEXT

namespace check_OUTFILE {
using Record = MSG_TYPE_OUTFILE;
constexpr record_field fields[] = {QX_FIELD(ulogin), QX_FIELD(outfile)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_OUTFILE

namespace check_QUITT_MSG2 {
using Record = MSG_TYPE_QUITT_MSG2;
constexpr record_field fields[] = {QX_FIELD(msg2_1_4), QX_FIELD(msg2_5_8)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_QUITT_MSG2

namespace check_SDMAIL2X {
using Record = MSG_TYPE_SDMAIL2X;
constexpr record_field fields[] = {QX_FIELD(type), QX_FIELD(flag), QX_FIELD(len)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_SDMAIL2X

namespace check_SNDMAILX {
using Record = MSG_TYPE_SNDMAILX;
constexpr record_field fields[] = {QX_FIELD(type), QX_FIELD(flag), QX_FIELD(len)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_SNDMAILX

namespace check_STATUS_VALUE {
using Record = MSG_TYPE_STATUS_VALUE;
constexpr record_field fields[] = {QX_FIELD(name), QX_FIELD(value), QX_FIELD(type)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_STATUS_VALUE

namespace check_STEPLIST {
using Record = MSG_TYPE_STEPLIST;
constexpr record_field fields[] = {QX_FIELD(step_name), QX_FIELD(step_retcode)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_STEPLIST

namespace check_SUB_EXSTART_1 {
using Record = MSG_TYPE_SUB_EXSTART_1;
constexpr record_field fields[] = {QX_FIELD(Comp1), QX_FIELD(Comp2), QX_FIELD(Comp3)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_SUB_EXSTART_1

namespace check_TIMESTAMP2 {
using Record = MSG_TYPE_TIMESTAMP2;
constexpr record_field fields[] = {QX_FIELD(jjjj), QX_FIELD(mo), QX_FIELD(tt), QX_FIELD(hh),
                                   QX_FIELD(mi),   QX_FIELD(ss), QX_FIELD(ns)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_TIMESTAMP2

namespace check_VALUETAB {
using Record = MSG_TYPE_VALUETAB;
constexpr record_field fields[] = {QX_FIELD(name), QX_FIELD(value), QX_FIELD(isencrypted)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_VALUETAB

namespace check_VARTAB {
using Record = MSG_TYPE_VARTAB;
constexpr record_field fields[] = {QX_FIELD(varname), QX_FIELD(varinhalt)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_VARTAB

namespace check_VERS {
using Record = MSG_TYPE_VERS;
constexpr record_field fields[] = {QX_FIELD(major), QX_FIELD(minor), QX_FIELD(patch), QX_FIELD(release_id),
                                   QX_FIELD(remote_id)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_VERS

namespace check_ZEITZONE_STR {
using Record = MSG_TYPE_ZEITZONE_STR;
constexpr record_field fields[] = {QX_FIELD(zz_hh), QX_FIELD(zz_mi)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_ZEITZONE_STR

namespace check_BINPATHS {
using Record = MSG_TYPE_BINPATHS;
constexpr record_field fields[] = {QX_FIELD(task_cache_path), QX_FIELD(client_cache_path)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_BINPATHS

namespace check_BINTAB {
using Record = MSG_TYPE_BINTAB;
constexpr record_field fields[] = {QX_FIELD(object_name), QX_FIELD(resource_name), QX_FIELD(file_name),
                                   QX_FIELD(mod_date), QX_FIELD(cache_type)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_BINTAB

namespace check_REPTAB {
using Record = MSG_TYPE_REPTAB;
constexpr record_field fields[] = {QX_FIELD(reporttyp), QX_FIELD(filename)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_REPTAB

}  // namespace
