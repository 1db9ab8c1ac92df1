// Records that stand inside several messages.
// The fixed parts that protocol_common.h declares, as they stand on the wire when every version's fields are
// sent.
#pragma once

#include <cstdint>
#include <string_view>

#include "messages/head.h"

// clang-format off
#pragma pack(push, 1)
#include "messages/declare_records.h"
#include "messages/protocol_common.h"
#include "messages/declare_end.h"
#pragma pack(pop)
