// What a job messenger tells the agent: a MELD of version "03" whose bytes from `msg_insert` on are one of
// these records, told apart by `status`. They may run past the message's fixed fields. Numbers are
// little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

#include "messages/records_common.h"
#include "messages/records_job.h"

inline constexpr size_t meld_record_offset = offsetof(MSG_TYPE_MELD, msg_insert);
static_assert(meld_record_offset == 20);

// Values of `status`. The first three report a state of the job.
enum meld_status : char {
    MELD_RUNNING = 'R',
    MELD_STATE_C = 'C',
    MELD_ENDED = 'E',
    MELD_VARIABLE = 'V',
    MELD_OUTPUT_FILE = 'O',
};

#pragma pack(push, 1)

struct JP_EXMLDJ {
    int32_t jobNr;
    char status;
    char infoText[32];    // restart mark (8), text (24)
    char md_version[32];  // version text of the messenger
    char filler0;
    int16_t mdMajor;  // 12
    int16_t mdMinor;
    int16_t mdPatch;
    int16_t filler;
    char filler1[2];
    int32_t retCode;
    int32_t cpuTime;
    MSG_TYPE_TIMESTAMP sTime;
    int64_t jtime;  // the same in seconds since 1970
    int32_t pid, ppid, pgrp, pgid, sid;
    int32_t uid, euid, gid, egid;
    int32_t ucpu, scpu, ioCount;
};
static_assert(sizeof(JP_EXMLDJ) == 160);
static_assert(offsetof(JP_EXMLDJ, mdMajor) == 70 && offsetof(JP_EXMLDJ, filler) == 76);
static_assert(offsetof(JP_EXMLDJ, retCode) == 80 && offsetof(JP_EXMLDJ, sTime) == 88);
static_assert(offsetof(JP_EXMLDJ, jtime) == 104 && offsetof(JP_EXMLDJ, pid) == 112);
static_assert(offsetof(JP_EXMLDJ, uid) == 132 && offsetof(JP_EXMLDJ, ucpu) == 148);

struct JP_EXMLDV {
    int32_t jobNr;
    char status;
    char infoText[32];
    char md_version[32];
    char filler0;
    int16_t mdMajor, mdMinor, mdPatch, filler;
    char filler1[2];
    MSG_TYPE_TIMESTAMP currTime;
    int64_t currTime_t;
    int32_t variable_dist;  // of a MSG_TYPE_STATUS_VALUE, counted from this record's first byte
    int32_t variable_len;
};
static_assert(sizeof(JP_EXMLDV) == 112);
static_assert(offsetof(JP_EXMLDV, mdMajor) == 70 && offsetof(JP_EXMLDV, currTime) == 80);
static_assert(offsetof(JP_EXMLDV, currTime_t) == 96 && offsetof(JP_EXMLDV, variable_dist) == 104);

struct JP_EXMLDO {
    int32_t jobNr;
    char status;
    char md_version[32];
    char filler0;
    int16_t mdMajor, mdMinor, mdPatch, filler;
    char filler1[2];
    MSG_TYPE_TIMESTAMP currTime;
    int64_t currTime_t;
    char loginCheck;
    char fileName[512];
    char filler2[7];
};
static_assert(sizeof(JP_EXMLDO) == 592);
static_assert(offsetof(JP_EXMLDO, mdMajor) == 38 && offsetof(JP_EXMLDO, currTime) == 48);
static_assert(offsetof(JP_EXMLDO, currTime_t) == 64 && offsetof(JP_EXMLDO, loginCheck) == 72);
static_assert(offsetof(JP_EXMLDO, fileName) == 73);

#pragma pack(pop)
