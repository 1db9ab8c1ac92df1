// Entries that other components of the system use. The agent knows their names; their fields are not its
// business.
#pragma once

#include "messages/catalogue.h"

// clang-format off
inline constexpr catalogue_part foreign_catalogue[] = {
    {"ABS_TIME3", {}, 0}, {"AKTSCR  ", {}, 0}, {"ANMELD  ", {}, 0}, {"ANMELD2 ", {}, 0},
    {"ANMELDQ2", {}, 0}, {"ANMELDQU", {}, 0}, {"CHNGLOG ", {}, 0}, {"DSCONFIG", {}, 0}, {"DSP     ", {}, 0},
    {"EM_CODE ", {}, 0}, {"EM_SHUTD", {}, 0}, {"ESTOP   ", {}, 0}, {"EVENTQU ", {}, 0}, {"EV_CREAT", {}, 0},
    {"EV_DELET", {}, 0}, {"EV_EKICK", {}, 0}, {"EV_EVENT", {}, 0}, {"EV_MCREA", {}, 0}, {"EV_MDELE", {}, 0},
    {"EV_MEVNT", {}, 0}, {"EV_OCLOS", {}, 0}, {"EV_OEVNT", {}, 0}, {"EV_OOPEN", {}, 0},
    {"EV_OOPEN1", {}, 0}, {"EV_S1CRE", {}, 0}, {"EV_S1EVT", {}, 0}, {"EV_S2CRE", {}, 0},
    {"EV_S2EVT", {}, 0}, {"EV_S3CRE", {}, 0}, {"EV_S3EVT", {}, 0}, {"EV_SDELE", {}, 0}, {"EV_WCLOS", {}, 0},
    {"EV_WEVNT", {}, 0}, {"EV_WOPEN", {}, 0}, {"EV_WOPEN1", {}, 0}, {"EXAKTJW ", {}, 0},
    {"EXEND   ", {}, 0}, {"EXMLDJ  ", {}, 0}, {"EXMLDJ2 ", {}, 0}, {"EXSTART ", {}, 0}, {"EXSTARTQ", {}, 0},
    {"FERELOAD", {}, 0}, {"FH_EVENT", {}, 0}, {"FH_WATCH", {}, 0}, {"GET     ", {}, 0}, {"JCHILD  ", {}, 0},
    {"JCHILDQU", {}, 0}, {"JOB_SMF ", {}, 0}, {"JOB_SMFQ", {}, 0}, {"JSITEM  ", {}, 0}, {"MELDE   ", {}, 0},
    {"PROMPT  ", {}, 0}, {"QUE_ACT ", {}, 0}, {"QUE_ACTQ", {}, 0}, {"QUE_CHK ", {}, 0}, {"QUE_FLTR", {}, 0},
    {"QUE_MOD ", {}, 0}, {"QUITT2  ", {}, 0}, {"QUITT2_REST_F", {}, 0}, {"QUITT2_REST_FILLER", {}, 0},
    {"RESKICK ", {}, 0}, {"ROLLBACK", {}, 0}, {"SAPCON  ", {}, 0}, {"SAPCONQU", {}, 0},
    {"SUB_EV_EVENT", {}, 0}, {"SUB_EV_MEVNT", {}, 0}, {"SUB_EV_S1EVT", {}, 0}, {"SUB_EV_S2EVT", {}, 0},
    {"SUB_EV_S3EVT", {}, 0}, {"TRCGETQU", {}, 0}, {"TS_SHORT", {}, 0},
};
// clang-format on
