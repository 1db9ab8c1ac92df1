// File events and file scanning.
// The fixed parts that protocol_event.h declares, as they stand on the wire when every version's fields are
// sent.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/records_common.h"

// clang-format off
#pragma pack(push, 1)
#include "messages/declare_records.h"
#include "messages/protocol_event.h"
#include "messages/declare_end.h"
#pragma pack(pop)
