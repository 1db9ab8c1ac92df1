// Reading from a status store that its user may have changed: every value is checked. For the files of the
// store only.
#pragma once

#include <string>
#include <string_view>

#include "base/error.h"
#include "transfer/kvstore.h"

// 63047 for a key that is missing or holds nonsense. -1.
int ss_keyFault(std::string_view key, qx7_error* err);
// The value, at most `max` bytes; empty when the key is not there. 0 or -1.
int ss_getText(kvstore* db, std::string_view key, size_t max, std::string* text, qx7_error* err);
// A record of exactly that size. 1, 0 when the key is not there, -1.
int ss_getRecord(kvstore* db, std::string_view key, void* record, size_t size, qx7_error* err);
// -1 with 63011 for a store of another version.
int ss_checkVersion(kvstore* db, qx7_error* err);
