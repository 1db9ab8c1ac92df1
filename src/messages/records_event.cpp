// Compares the records with the catalogue; the file has no code.
#include "messages/records_event.h"

#include "messages/catalogue_common.h"
#include "messages/catalogue_event.h"
#include "messages/record_check.h"

namespace {

template <class Record, size_t N>
constexpr bool matches(const record_field (&fields)[N], size_t start) {
    return record_matches(event_catalogue, common_catalogue, Record::catalogue_name, start, sizeof(Record),
                          fields);
}

namespace check_FSC_CONT {
using Record = MSG_TYPE_FSC_CONT;
constexpr record_field fields[] = {QX_FIELD(filename), QX_FIELD(chars), QX_FIELD(type)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_FSC_CONT

namespace check_SUB_FH_APINF {
using Record = MSG_TYPE_SUB_FH_APINF;
constexpr record_field fields[] = {QX_FIELD(totaldiscspc),  QX_FIELD(useddiscspc), QX_FIELD(freediscspc),
                                   QX_FIELD(anz_files),     QX_FIELD(anz_folders), QX_FIELD(sizeoffiles),
                                   QX_FIELD(usedszeofiles), QX_FIELD(relablesize), QX_FIELD(bytesperunit),
                                   QX_FIELD(filename)};
static_assert(matches<Record>(fields, 0));
}  // namespace check_SUB_FH_APINF

namespace check_FH_CHK {
using Record = MSG_TYPE_FH_CHK;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),   QX_FIELD(filename),   QX_FIELD(logininfo),
                                   QX_FIELD(passw),     QX_FIELD(incsubdirs), QX_FIELD(type),
                                   QX_FIELD(op),        QX_FIELD(size),       QX_FIELD(durhour),
                                   QX_FIELD(durminute), QX_FIELD(type2),      QX_FIELD(considerallfiles),
                                   QX_FIELD(pwd_dist),  QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_CHK

namespace check_FH_CONT {
using Record = MSG_TYPE_FH_CONT;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_CONT

namespace check_FH_DEL {
using Record = MSG_TYPE_FH_DEL;
constexpr record_field fields[] = {QX_FIELD(filename), QX_FIELD(logininfo), QX_FIELD(passw),
                                   QX_FIELD(ah_idnr),  QX_FIELD(pwd_dist),  QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_DEL

namespace check_FH_WADEL {
using Record = MSG_TYPE_FH_WADEL;
constexpr record_field fields[] = {QX_FIELD(ah_idnr)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_WADEL

namespace check_FH_PINF {
using Record = MSG_TYPE_FH_PINF;
constexpr record_field fields[] = {QX_FIELD(logininfo), QX_FIELD(passw),   QX_FIELD(unused),
                                   QX_FIELD(path),      QX_FIELD(ah_idnr), QX_FIELD(inclSubDir),
                                   QX_FIELD(pwd_dist),  QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_PINF

namespace check_FH_APINF {
using Record = MSG_TYPE_FH_APINF;
constexpr record_field fields[] = {QX_FIELD(fh_apinf)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_APINF

namespace check_FH_AQUIT {
using Record = MSG_TYPE_FH_AQUIT;
constexpr record_field fields[] = {QX_FIELD(err_Nr), QX_FIELD(err_Ins), QX_FIELD(err_SysTxt),
                                   QX_FIELD(ah_idnr), QX_FIELD(msg_type)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_AQUIT

namespace check_FH_HIT {
using Record = MSG_TYPE_FH_HIT;
constexpr record_field fields[] = {QX_FIELD(ah_idnr),   QX_FIELD(count),     QX_FIELD(timestamp),
                                   QX_FIELD(file_name), QX_FIELD(file_size), QX_FIELD(file_count),
                                   QX_FIELD(result)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FH_HIT

namespace check_FSCAN {
using Record = MSG_TYPE_FSCAN;
constexpr record_field fields[] = {
    QX_FIELD(ah_idnr),   QX_FIELD(logininfo), QX_FIELD(passw),    QX_FIELD(condition), QX_FIELD(cont_entries),
    QX_FIELD(cont_dist), QX_FIELD(code_dist), QX_FIELD(code_len), QX_FIELD(pwd_dist),  QX_FIELD(pwd_len)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FSCAN

namespace check_FSCANQU {
using Record = MSG_TYPE_FSCANQU;
constexpr record_field fields[] = {QX_FIELD(ah_idnr), QX_FIELD(retcode), QX_FIELD(msgnr),
                                   QX_FIELD(msg_insert)};
static_assert(matches<Record>(fields, sizeof(QX_HEADM)));
}  // namespace check_FSCANQU

}  // namespace
