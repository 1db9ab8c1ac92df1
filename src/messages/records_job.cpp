// Compares the records with the catalogue; the file has no code.
#include "messages/records_job.h"

#include "messages/catalogue_common.h"
#include "messages/catalogue_job.h"
#include "messages/record_check.h"

namespace {

template <class Record, size_t N>
constexpr bool matches(const record_field (&fields)[N], size_t start) {
    return record_matches(job_catalogue, common_catalogue, Record::catalogue_name, start, sizeof(Record),
                          fields);
}

namespace check_EXAKTJ {
using Record = MSG_TYPE_EXAKTJ;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),         QX_FIELD(name),           QX_FIELD(jobfile),
    QX_FIELD(jobreport),       QX_FIELD(jobsyslst),      QX_FIELD(eventfile),
    QX_FIELD(logininfo),       QX_FIELD(maxcpu),         QX_FIELD(express),
    QX_FIELD(jclass),          QX_FIELD(prio),           QX_FIELD(revision),
    QX_FIELD(loggtyp),         QX_FIELD(rest_dist),      QX_FIELD(passw),
    QX_FIELD(max_retcode),     QX_FIELD(rest_len),       QX_FIELD(code_dist),
    QX_FIELD(code_len),        QX_FIELD(jcl_dist),       QX_FIELD(jcl_len),
    QX_FIELD(component),       QX_FIELD(compTimeStamp),  QX_FIELD(conntab_dist),
    QX_FIELD(conntab_entries), QX_FIELD(valuetab_dist),  QX_FIELD(valuetab_entries),
    QX_FIELD(vartab_dist),     QX_FIELD(vartab_entries), QX_FIELD(reptab_dist),
    QX_FIELD(reptab_entries),  QX_FIELD(binpaths_dist),  QX_FIELD(binpaths_entries),
    QX_FIELD(bintab_dist),     QX_FIELD(bintab_entries), QX_FIELD(pwd_dist),
    QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXAKTJ

namespace check_EXAKTJQU {
using Record = MSG_TYPE_EXAKTJQU;
constexpr record_field fields[] = {QX_FIELD(processid),    QX_FIELD(startzeit), QX_FIELD(restart_len),
                                   QX_FIELD(restart_dist), QX_FIELD(jobname),   QX_FIELD(logininfo)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXAKTJQU

namespace check_EXSTAJ {
using Record = MSG_TYPE_EXSTAJ;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),       QX_FIELD(processid),     QX_FIELD(status),
    QX_FIELD(retcode),       QX_FIELD(cputime),       QX_FIELD(kerneltime),
    QX_FIELD(usertime),      QX_FIELD(iocount),       QX_FIELD(cnt),
    QX_FIELD(infotext_alt),  QX_FIELD(endzeit),       QX_FIELD(progname),
    QX_FIELD(stepcount),     QX_FIELD(steplist_dist), QX_FIELD(restart_len),
    QX_FIELD(restart_dist),  QX_FIELD(startzeit),     QX_FIELD(remote_status),
    QX_FIELD(remote_insert), QX_FIELD(statusv_dist),  QX_FIELD(statusv_entries),
    QX_FIELD(outfile_count), QX_FIELD(outfile_dist)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXSTAJ

namespace check_EXSTAJQU {
using Record = MSG_TYPE_EXSTAJQU;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(status)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXSTAJQU

namespace check_JOB_INF {
using Record = MSG_TYPE_JOB_INF;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),   QX_FIELD(restart_len), QX_FIELD(restart_dist),
                                   QX_FIELD(processid), QX_FIELD(status),      QX_FIELD(last_jobinf),
                                   QX_FIELD(cnt)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_JOB_INF

namespace check_JOB_CAN {
using Record = MSG_TYPE_JOB_CAN;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_JOB_CAN

namespace check_JOB_DEL {
using Record = MSG_TYPE_JOB_DEL;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_JOB_DEL

namespace check_MELD {
using Record = MSG_TYPE_MELD;
constexpr record_field fields[] = {QX_FIELD(msgnr), QX_FIELD(msg_insert)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_MELD

namespace check_EXREQCMD {
using Record = MSG_TYPE_EXREQCMD;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),   QX_FIELD(max_rows),  QX_FIELD(jcl_dist), QX_FIELD(jcl_len),  QX_FIELD(jobfile),
    QX_FIELD(jobreport), QX_FIELD(logininfo), QX_FIELD(passw),    QX_FIELD(pwd_dist), QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXREQCMD

namespace check_EXREQCAN {
using Record = MSG_TYPE_EXREQCAN;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXREQCAN

namespace check_EXRESCMD {
using Record = MSG_TYPE_EXRESCMD;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(rep_dist), QX_FIELD(rep_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_EXRESCMD

}  // namespace
