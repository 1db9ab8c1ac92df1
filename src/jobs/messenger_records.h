// What the job messenger tells the agent: one of three records behind the fixed head of a MELD, told apart by
// the status byte at offset 4. Little-endian, packed, unconverted. Shared with the messenger program.
#pragma once

#include <cstddef>
#include <cstdint>

#include "messages/records_common.h"

// Statuses that a record may carry.
enum meld_status : char {
    meld_running = 'R',
    meld_continued = 'C',
    meld_ended = 'E',
    meld_variable = 'V',
    meld_file = 'O'
};

inline constexpr size_t meld_status_offset = 4;
inline constexpr size_t meld_record_offset = 20;  // of the record in the message, counted from its head
inline constexpr int meld_major_version = 12;
inline constexpr char meld_message_version[] = "03";

#pragma pack(push, 1)

// Status report.
struct JP_EXMLDJ {
    int32_t jobNr;
    char status;
    char infoText[32];  // 8 bytes restart mark, 24 bytes text
    char md_version[32];
    char filler0;
    uint16_t mdMajor;
    uint16_t mdMinor;
    uint16_t mdPatch;
    uint16_t filler;
    char filler1[2];
    int32_t retCode;
    int32_t cpuTime;
    MSG_TYPE_TIMESTAMP sTime;
    int64_t jtime;
    int32_t pid, ppid, pgrp, pgid, sid;
    uint32_t uid, euid, gid, egid;
    int32_t ucpu, scpu, ioCount;
};
static_assert(sizeof(JP_EXMLDJ) == 160);
static_assert(offsetof(JP_EXMLDJ, infoText) == 5 && offsetof(JP_EXMLDJ, md_version) == 37);
static_assert(offsetof(JP_EXMLDJ, mdMajor) == 70 && offsetof(JP_EXMLDJ, retCode) == 80);
static_assert(offsetof(JP_EXMLDJ, sTime) == 88 && offsetof(JP_EXMLDJ, jtime) == 104);
static_assert(offsetof(JP_EXMLDJ, pid) == 112 && offsetof(JP_EXMLDJ, uid) == 132);
static_assert(offsetof(JP_EXMLDJ, ucpu) == 148);

// Registers a variable: a MSG_TYPE_STATUS_VALUE stands at variable_dist, counted from the record's start.
struct JP_EXMLDV {
    int32_t jobNr;
    char status;
    char infoText[32];
    char md_version[32];
    char filler0;
    uint16_t mdMajor;
    uint16_t mdMinor;
    uint16_t mdPatch;
    uint16_t filler;
    char filler1[2];
    MSG_TYPE_TIMESTAMP currTime;
    int64_t currTime_t;
    int32_t variable_dist;
    int32_t variable_len;
};
static_assert(sizeof(JP_EXMLDV) == 112);
static_assert(offsetof(JP_EXMLDV, mdMajor) == 70 && offsetof(JP_EXMLDV, currTime) == 80);
static_assert(offsetof(JP_EXMLDV, variable_dist) == 104);

// Registers an output file.
struct JP_EXMLDO {
    int32_t jobNr;
    char status;
    char md_version[32];
    char filler0;
    uint16_t mdMajor;
    uint16_t mdMinor;
    uint16_t mdPatch;
    uint16_t filler;
    char filler1[2];
    MSG_TYPE_TIMESTAMP currTime;
    int64_t currTime_t;
    char loginCheck;
    char fileName[512];
    char filler2[7];
};
static_assert(sizeof(JP_EXMLDO) == 592);
static_assert(offsetof(JP_EXMLDO, mdMajor) == 38 && offsetof(JP_EXMLDO, currTime) == 48);
static_assert(offsetof(JP_EXMLDO, loginCheck) == 72 && offsetof(JP_EXMLDO, fileName) == 73);

#pragma pack(pop)
