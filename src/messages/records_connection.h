// Data of the connection items: what a CP and a partner say about themselves before the handshake.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)

// Item 65, in characters, blank-padded. Behind these 76 bytes stands the CP list as text: host ":" port ";"
// each.
struct SERVER_DATA {
    char cSrvName[32];
    char cSysName[32];
    char cSrvVers[5];
    char cSrvTyp[3];
    char cConCnt[4];  // ranking in decimal
};
static_assert(sizeof(SERVER_DATA) == 76);

inline constexpr unsigned char executor_card_flag = 0x60;

// Item 4, the visit card; what no field names is blank.
struct executor_data {
    char name[32];
    uint32_t ipPort;     // little-endian
    unsigned char flag;  // executor_card_flag
    char filler[3];
    unsigned char key_hash[16];  // of the transfer key, zero without one
    char filler2[16];
};
static_assert(sizeof(executor_data) == 72);
static_assert(offsetof(executor_data, ipPort) == 32 && offsetof(executor_data, key_hash) == 40);

// Item 249, the order to shut down. It may be longer.
struct _QX7_SYS_SHUTDOWN {
    char cHost[32];
    char bMode;  // nobody looks at it
    char bUnused[3];
    int32_t lMsgNr;  // 0: nothing to log
    char cMsgIns[256];
};
static_assert(sizeof(_QX7_SYS_SHUTDOWN) == 296);

#pragma pack(pop)
