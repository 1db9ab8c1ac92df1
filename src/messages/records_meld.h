// What a job messenger tells the agent: a MELD of version "03" whose bytes from `msg_insert` on are one of
// these records, told apart by `status`. They may run past the message's fixed fields, and are never
// converted. The messenger program writes them, the agent reads them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "messages/records_common.h"
#include "messages/records_job.h"

// Values of `status`. The first three report a state of the job.
enum meld_status : char {
    meld_running = 'R',
    meld_continued = 'C',
    meld_ended = 'E',
    meld_variable = 'V',
    meld_file = 'O',
};

inline constexpr size_t meld_record_offset = offsetof(MSG_TYPE_MELD, msg_insert);
inline constexpr size_t meld_status_offset = 4;  // in each record
inline constexpr size_t meld_mark_size = 8;      // of `infoText` the restart mark, the rest is text
inline constexpr int meld_major_version = 12;
inline constexpr char meld_message_version[] = "03";
static_assert(meld_record_offset == 20);

#pragma pack(push, 1)

// Reports a state.
struct JP_EXMLDJ {
    int32_t jobNr;
    char status;
    char infoText[32];
    char md_version[32];  // version text of the messenger
    char filler0;
    uint16_t mdMajor, mdMinor, mdPatch, filler;
    char filler1[2];
    int32_t retCode;
    int32_t cpuTime;
    MSG_TYPE_TIMESTAMP sTime;
    int64_t jtime;  // the same in seconds since 1970
    int32_t pid, ppid, pgrp, pgid, sid;
    uint32_t uid, euid, gid, egid;
    int32_t ucpu, scpu, ioCount;
};
static_assert(sizeof(JP_EXMLDJ) == 160 && offsetof(JP_EXMLDJ, status) == meld_status_offset);
static_assert(offsetof(JP_EXMLDJ, infoText) == 5 && offsetof(JP_EXMLDJ, md_version) == 37);
static_assert(offsetof(JP_EXMLDJ, mdMajor) == 70 && offsetof(JP_EXMLDJ, retCode) == 80);
static_assert(offsetof(JP_EXMLDJ, sTime) == 88 && offsetof(JP_EXMLDJ, jtime) == 104);
static_assert(offsetof(JP_EXMLDJ, pid) == 112 && offsetof(JP_EXMLDJ, uid) == 132);
static_assert(offsetof(JP_EXMLDJ, ucpu) == 148);

// Registers a variable.
struct JP_EXMLDV {
    int32_t jobNr;
    char status;
    char infoText[32];
    char md_version[32];
    char filler0;
    uint16_t mdMajor, mdMinor, mdPatch, filler;
    char filler1[2];
    MSG_TYPE_TIMESTAMP currTime;
    int64_t currTime_t;
    int32_t variable_dist;  // of a MSG_TYPE_STATUS_VALUE, counted from this record's first byte
    int32_t variable_len;
};
static_assert(sizeof(JP_EXMLDV) == 112 && offsetof(JP_EXMLDV, status) == meld_status_offset);
static_assert(offsetof(JP_EXMLDV, mdMajor) == 70 && offsetof(JP_EXMLDV, currTime) == 80);
static_assert(offsetof(JP_EXMLDV, currTime_t) == 96 && offsetof(JP_EXMLDV, variable_dist) == 104);

// Registers an output file.
struct JP_EXMLDO {
    int32_t jobNr;
    char status;
    char md_version[32];
    char filler0;
    uint16_t mdMajor, mdMinor, mdPatch, filler;
    char filler1[2];
    MSG_TYPE_TIMESTAMP currTime;
    int64_t currTime_t;
    char loginCheck;
    char fileName[512];
    char filler2[7];
};
static_assert(sizeof(JP_EXMLDO) == 592 && offsetof(JP_EXMLDO, status) == meld_status_offset);
static_assert(offsetof(JP_EXMLDO, mdMajor) == 38 && offsetof(JP_EXMLDO, currTime) == 48);
static_assert(offsetof(JP_EXMLDO, currTime_t) == 64 && offsetof(JP_EXMLDO, loginCheck) == 72);
static_assert(offsetof(JP_EXMLDO, fileName) == 73);

#pragma pack(pop)
