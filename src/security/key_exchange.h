// The key exchange at first contact: a server sends a start package, the agent answers with a response
// package, and both hold the same new transfer key. Packages travel in frames of protocol "GSS".
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "security/key_store.h"

inline constexpr size_t start_package_size = 180;
inline constexpr size_t response_package_size = 115;

enum gss_command : int {
    GSS_CMD_NONE = 0,
    GSS_CMD_BAD_ARGUMENT = 5,
    GSS_CMD_START = 16,
    GSS_CMD_RESPONSE = 17,
    GSS_CMD_18 = 18,
    GSS_CMD_19 = 19,
    GSS_CMD_20 = 20,
    GSS_CMD_21 = 21,
};

struct startpack {
    bool bEncode = true;
    char pKStorePlug[32] = {};
    char pExName[32] = {};
    char pPIAttrib[32] = {};
    uint64_t pDHValues[4] = {};
};

struct resppack {
    bool bEncode = true;
    uint8_t bErrCode = 0;
    uint8_t pGSSAPIHash[16] = {};
    uint8_t pKeyManHash[16] = {};
    uint8_t pKStoreHash[16] = {};
    uint64_t pDHValues[4] = {};
};

// ---- what a GSS frame holds

// Command code of the bytes behind a frame's header; `*isGSS` tells a mechanism token. 0: unknown.
int tstCmd(const uint8_t* data, size_t length, bool* isGSS);
// The same as a call: 0 and the code in `*command`; 5002 for a bad argument; 5011 for bytes that are neither
// a token nor a package.
int classifyData(const uint8_t* data, size_t length, int* command, bool* isGSS);

// ---- agent's side

// Serves a start package: agrees on a key, stores it for `name` and writes the response package into `answer`
// (room in
// `*answerLength`, at least 115; becomes the bytes used). `plugin` and `attributes` get the package's texts
// (33 bytes each, may be null).
// Result 0: the key is stored. A number of the key manager: refused; `*answerLength` is then 0 when the
// package could not be opened, else the answer carries the number less 5000.
int cmdData(key_manager* keys, std::string_view name, int command, const uint8_t* data, size_t length,
            uint8_t* answer, size_t* answerLength, char* plugin, char* attributes);

// ---- server's side

// What a server keeps between start and response package. Wiped at its end.
struct key_exchange {
    uint64_t private_numbers[4] = {};
    bool encode = true;

    ~key_exchange();
};

// Makes the start package for the agent `name`. 0 or a number of the key manager.
int key_exchange_start(const key_manager& keys, std::string_view name, key_exchange* exchange,
                       uint8_t package[start_package_size]);
// Takes the response package; `key` is then the agreed transfer key, which the caller stores. An answer with
// an error byte gives that number plus 5000.
int key_exchange_finish(const key_manager& keys, const key_exchange& exchange, const uint8_t* data,
                        size_t length, uint8_t key[gss_key_size]);

// ---- packages

// Plain form in bytes, hash included; `cryptXX` then enciphers it when byte 3 or 2 has bit 128, `decryptXX`
// opens it. split: 5011 for length or head, 5012 for the hash.
void buildSPpackage(const startpack& in, uint8_t out[start_package_size]);
int cryptSPpackage(const key_manager& keys, uint8_t package[start_package_size]);
int decryptSPpackage(const key_manager& keys, uint8_t package[start_package_size]);
int splitSPpackage(const uint8_t* package, size_t length, startpack* out);
void buildRPpackage(const resppack& in, uint8_t out[response_package_size]);
int cryptRPpackage(const key_manager& keys, uint8_t package[response_package_size]);
int decryptRPpackage(const key_manager& keys, uint8_t package[response_package_size]);
int splitRPpackage(const uint8_t* package, size_t length, resppack* out);

void gss_CalcHash(const uint8_t* data, size_t length, uint8_t hash[16]);
void DHVal2Transfer(const uint64_t values[4], uint8_t out[32]);
void Transfer2DHVals(const uint8_t in[32], uint64_t values[4]);

// ---- numbers

extern const uint64_t g_DHTable[256];

// base to the power of exponent, modulo modulus (not 0).
uint64_t XpowYmodN(uint64_t base, uint64_t exponent, uint64_t modulus);
bool MillerRabin(uint64_t candidate, int rounds);
// Generator and modulus for a company key. 0, 5023 when the table has no prime, 5002 for an empty key.
int _compDHPrimes(const uint8_t* key, size_t length, uint64_t* generator, uint64_t* modulus);
// A private number and its public value.
void BuildInterKey(uint64_t generator, uint64_t modulus, uint64_t* private_number, uint64_t* public_value);
// The shared value; 5002 for a public value outside 2 to modulus - 2.
int CalcEncryptionKey(uint64_t public_value, uint64_t private_number, uint64_t modulus, uint64_t* shared);
