// The 16 bytes in front of every application message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text.h"

inline constexpr size_t message_type_size = 8;

#pragma pack(push, 1)
// All text is ASCII, blank-padded; numbers are little-endian on the wire and in the host.
struct QX_HEADM {
    char msg_typ[8];     // catalogue name, upper case
    char version[2];     // two digits: the highest version of the fields that follow
    uint16_t i2Mandant;  // client
    uint32_t i4UsrIdNr;  // user
};
#pragma pack(pop)
static_assert(sizeof(QX_HEADM) == 16);
static_assert(offsetof(QX_HEADM, version) == 8 && offsetof(QX_HEADM, i2Mandant) == 10);
static_assert(offsetof(QX_HEADM, i4UsrIdNr) == 12);

// Fills a head for a message of version "01". `type` is cut at 8 characters and padded with blanks.
void CreateQxHeadm(QX_HEADM* head, std::string_view type, uint16_t mandant, uint32_t usridnr);

// Writes `version` (0 to 99) as two digits.
void set_message_version(QX_HEADM* head, int version);

// The number in the head's two version digits, read as `atoi` does: what is no digit ends it.
int message_version(const QX_HEADM* head);

// Whether `data` holds at least 8 bytes and begins with `type`, blank-padded to 8. Nothing is read behind
// `length`.
bool message_type_is(const void* data, size_t length, std::string_view type);
