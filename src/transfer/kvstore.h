// Key-value store in a file: records one behind the other, an index of their keys in memory.
//
// The file has no head. A record is a header of 64 bytes and the bytes reserved for its value. Deleted
// records stay; a value that outgrows its place moves to the end. What a crash left incomplete at the end is
// cut off when the store is opened. One process owns a store at a time, and it belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

inline constexpr size_t kvstore_key_size = 28;  // its terminator included
inline constexpr uint32_t kvstore_deleted = 1;

// Header of a record, in the file and as node of the index. Numbers are in the machine's byte order.
struct __kvstore_record {
    char eyec[4];                // "%KVR"
    char key[kvstore_key_size];  // terminated
    uint32_t flag;
    uint32_t padding;
    int64_t len;        // bytes reserved
    int64_t value_len;  // bytes in use
    int64_t offset;     // of the header in the file
};
static_assert(sizeof(__kvstore_record) == 64);
static_assert(offsetof(__kvstore_record, flag) == 32 && offsetof(__kvstore_record, len) == 40 &&
              offsetof(__kvstore_record, offset) == 56);

struct __kvstore_database {
    char eyec[8] = {'%', 'K', 'V', 'S', 'D', 'B', '%', '%'};
    int db_fd = -1;
    std::string db_filename;
    std::map<std::string, __kvstore_record, std::less<>> bt_root;  // live keys
    int64_t file_end = 0;
    // With kvstore_peek: the only keys that are looked for, so that a large store costs no memory. Empty: all.
    std::vector<std::string> only;

    __kvstore_database() = default;
    __kvstore_database(const __kvstore_database&) = delete;
    __kvstore_database& operator=(const __kvstore_database&) = delete;
    ~__kvstore_database();
};
using kvstore = __kvstore_database;

enum kvstore_mode : int {
    kvstore_create = 0,     // makes the file when it is missing
    kvstore_existing = 1,   // the file must be there
    kvstore_peek = 2,       // a look at a store that somebody holds: no lock, nothing is changed
    kvstore_empty = 3,      // makes the file when it is missing, and throws away what it holds
    kvstore_any_owner = 4,  // as kvstore_existing; root may open another's
};

// Opens the file and loads its keys; an open store is closed first. The file must be a regular one of this
// effective user with one name. A store that another process holds is tried for 10 seconds. 0, or -1: 2003041
// for a failed call, 2003071 for a file that is no store.
int kvstore_open(kvstore* db, const char* filename, int mode, qx7_error* err);

// Puts the value of `key` into `value`, which holds `*len` bytes. Returns the value's length, also in `*len`;
// 0 when the key is not there; -1 on a failure: 2003041, or 63047 (errno ERANGE) for a value that is longer.
int64_t kvstore_get(kvstore* db, std::string_view key, void* value, size_t* len, qx7_error* err);

// Stores a value under a key of 1 to 27 bytes. 0 or -1. Where the key held an empty value, a crash leaves that
// or the new one whole.
int kvstore_put(kvstore* db, std::string_view key, const void* value, size_t len, qx7_error* err);

// 0, also when the key is not there, or -1.
int kvstore_delete(kvstore* db, std::string_view key, qx7_error* err);

// Closes the file and empties the index. 0 or -1.
int kvstore_close(kvstore* db, qx7_error* err);
