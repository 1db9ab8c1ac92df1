// The key manager: company key, key store file, initial package, and the callbacks that the mechanism asks.
// A server uses a record of its own; the agent's record is the one that the callbacks read.
// A record is used by one thread at a time; after start it is only read, except by a key exchange.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "base/memory.h"
#include "security/mechanism.h"

enum km_result : int {
    KM_OK = 0,
    KM_UNKNOWN = 5000,
    KM_MEMORY = 5001,
    KM_RANGE = 5002,
    KM_NOT_INITIALIZED = 5003,
    KM_NOT_IMPLEMENTED = 5004,
    KM_CONVERT = 5005,
    KM_ENCRYPT = 5006,
    KM_DECRYPT = 5007,
    KM_LIBRARY = 5008,
    KM_ENTRY_POINT = 5009,
    KM_BUFFER_SMALL = 5010,
    KM_WRONG_DATA = 5011,
    KM_HASH = 5012,
    KM_UNEXPECTED = 5013,
    KM_OPEN = 5014,
    KM_READ = 5015,
    KM_PLUGIN_HASH = 5016,
    KM_PASSWORD = 5017,
    KM_NO_VALUE = 5018,
    KM_NO_PLUGIN = 5019,
    KM_NAME_UNKNOWN = 5020,
    KM_VERSION = 5021,
    KM_WRITE = 5022,  // the store can't be written; its text names the prime table
    KM_PRIMES = 5023,
    KM_KEY_EXISTS = 5024,
};

enum key_type : int {
    KEY_TYPE_PARTNER = 1,  // a transfer key, stored under the company key
    KEY_TYPE_COMPANY = 2,  // the company key itself, stored plain
};

// The text of a number from 5000 on; "" for 5023 and for unknown ones.
const char* km_error_text(int number);

// One key store with its company key. Wiped at its end.
struct key_manager {
    bool open = false;
    std::string file;
    std::string systemName;
    std::string exName;
    qx_secret<gss_key_size> g_pCompKey;
    uint64_t generator = 0;  // of the key exchange, both from the company key
    uint64_t modulus = 0;
    bool first_contact = true;    // start packages of a key exchange are served
    mutable int store_errno = 0;  // why the file could not be read or written, of the last failure

    key_manager() = default;
    key_manager(const key_manager&) = delete;
    key_manager& operator=(const key_manager&) = delete;
};

// The agent's own record, which the callbacks of KMsetGSSCallback read.
key_manager& agent_keys();

// Opens a record. `key` not empty: that is the company key (cut at 32 bytes, zero-padded). Else the store's
// "CompanyKey" entry; else the built-in key under the system name (made upper case, blanks at its end
// dropped). `file` is the key store; one that doesn't exist is an empty store. 0 or a number of the key
// manager.
int KComInit(key_manager* keys, std::string_view systemName, std::string_view exName,
             std::span<const uint8_t> key, const std::string& file);
// Sets the company key and derives the numbers of the key exchange from it. 0, 5002 or 5023.
int KCinit(key_manager* keys, std::span<const uint8_t> key);
// The number's reason with the store's file and the system's own reason where those count, for a line in the
// log.
std::string km_explain(const key_manager& keys, int number);
// Wipes. May be called repeatedly.
void KComExit(key_manager* keys);
const char* KComVersion();
const char* KSVersion();

// Opens the agent's key manager from the settings and hands the callbacks to the mechanism. Reads the initial
// package when the store holds no key for the agent. -1 with `error` filled (2000102, insert
// "KComInit|%08X|"). Main thread.
int GssOpen(qx7_error* error);
// Wipes the key manager and takes the callbacks away. Repeatable; also what a forked child calls first.
void GssClose();

// ---- entries of the store

// One key as it stands in the file. `*length` is the room in `out` and becomes the bytes used. `type` 0 takes
// any.
int getEncKey(const key_manager& keys, std::string_view name, int number, int type, uint8_t* out,
              size_t* length, int* actualType);
// Writes an entry. The file is replaced by rename and has mode 0400 throughout; it becomes the owner's alone.
int setEncKey(key_manager* keys, std::string_view name, int number, const uint8_t* key, size_t length,
              int type);
int updEncKey(key_manager* keys, std::string_view name, int number, const uint8_t* key, size_t length,
              int type);
int delEncKey(key_manager* keys, std::string_view name, int number, int type);

// In place, with the company key and a zero vector. `length` is a multiple of 16.
int encryptKey(const key_manager& keys, uint8_t* key, size_t length);
int decryptKey(const key_manager& keys, uint8_t* key, size_t length);
int generateKey(uint8_t key[gss_key_size]);
int getCompKey(const key_manager& keys, uint8_t key[gss_key_size]);

// The plain transfer key of a partner. 5020 when there is none.
int get_transfer_key(const key_manager& keys, std::string_view name, uint8_t key[gss_key_size]);
// Stores a partner's transfer key, an older one is replaced.
int set_transfer_key(key_manager* keys, std::string_view name, const uint8_t key[gss_key_size]);
// MD5 over the transfer key of `name`; 16 zero bytes when there is none.
void getKeyHash(const key_manager& keys, std::string_view name, uint8_t hash[16]);
// What two persons compare to know that agent and server hold the same key: eight groups of four hex digits.
// It is another digest than the one on the visit card, is slow to compute, and does not lead back to the key,
// so it may stand in a log.
std::string key_fingerprint(const uint8_t key[gss_key_size]);
// The same of the stored transfer key of `name`; empty when there is none that can be read.
std::string key_fingerprint(const key_manager& keys, std::string_view name);

// ---- derivation

// AES-128-CBC in place under MD5 of the text. `length` is a multiple of 16. 0 or 5006.
int gss_PWEncrypt(std::string_view text, uint8_t* data, size_t length);
// The company key that an installation has without further setup.
void default_company_key(std::string_view systemName, uint8_t key[gss_key_size]);
// `length` bytes of key material from two byte strings. 0 or 5002.
int GetKeyValue(std::span<const uint8_t> first, std::span<const uint8_t> second, uint8_t* out, size_t length);

// ---- initial package

inline constexpr size_t initial_package_max = 1023;

struct initial_package {
    uint32_t flags = 0;  // 4: only a company key
    std::string name;
    std::string plugin;
    std::string attributes;
    uint8_t plugin_hash[16] = {};
    qx_secret<gss_key_size> company_key;
    qx_secret<gss_key_size> transfer_key;
};
inline constexpr uint32_t initial_package_company_only = 4;

// Reads a package and stores its keys. 0 or a number of the key manager.
int ImportKey(key_manager* keys, std::span<const uint8_t> package, std::string_view password);
// The package's content, without storing it.
int parse_initial_package(std::span<const uint8_t> package, std::string_view password, initial_package* out);
// Builds a package; what a key-management tool or a server does. The result is empty when it would be too
// long.
std::string build_initial_package(const initial_package& content, std::string_view password);

// ---- the mechanism's callbacks

void KMsetGSSCallback();
int KMgetKeyEX(std::string_view name, OM_uint32 idnr, uint8_t key[gss_key_size]);
int KMgetKeyGUI(const std::vector<std::string_view>& fields, uint8_t key[gss_key_size]);
int KMgetDefKeyGUI(const std::vector<std::string_view>& fields, uint8_t key[gss_key_size]);
int KMgetNewSessionKey(uint8_t key[gss_key_size]);
int KMgetPIName(char name[gss_name_size]);
int KMcheckPIHash(std::string_view plugin, const uint8_t hash[16]);
int KMgetPIHash(std::string_view plugin, uint8_t hash[16]);
