#include "security/key_exchange.h"

#include <string.h>

#include "base/text.h"
#include "security/plugin.h"
#include "security/random.h"

namespace {

constexpr int miller_rabin_rounds = 100;
constexpr size_t table_size = 256;
constexpr size_t start_position = 169;  // of the key's byte that chooses the numbers
constexpr size_t modulus_distance = 128;

uint64_t multiply_modulo(uint64_t a, uint64_t b, uint64_t modulus) {
    return static_cast<uint64_t>(static_cast<unsigned __int128>(a) * b % modulus);
}

// The first prime of the table from an entry on; 0 when there is none.
uint64_t next_prime(size_t at) {
    for (size_t step = 0; step < table_size; ++step) {
        uint64_t candidate = g_DHTable[(at + step) % table_size];
        if (MillerRabin(candidate, miller_rabin_rounds)) {
            return candidate;
        }
    }
    return 0;
}

// The four shared values, in the order of a transfer, are the key.
int shared_key(const key_manager& keys, const uint64_t private_numbers[4], const uint64_t public_values[4],
               uint8_t key[gss_key_size]) {
    uint64_t shared[4];
    int number = KM_OK;
    for (size_t i = 0; i < 4 && number == KM_OK; ++i) {
        number = CalcEncryptionKey(public_values[i], private_numbers[i], keys.modulus, &shared[i]);
    }
    if (number == KM_OK) {
        DHVal2Transfer(shared, key);
    }
    qx_wipe(shared, sizeof shared);
    return number;
}

// Agrees on a key for a start package that could be opened, and stores it.
int serve_start_package(key_manager* keys, std::string_view name, const startpack& start,
                        uint64_t public_values[4]) {
    if (rstrip(field_text(start.pExName)) != rstrip(name)) {
        return KM_WRONG_DATA;
    }
    int number = check_plugin(rstrip(field_text(start.pKStorePlug)), nullptr);
    if (number != KM_OK) {
        return number;
    }
    key_exchange own;
    for (size_t i = 0; i < 4; ++i) {
        BuildInterKey(keys->generator, keys->modulus, &own.private_numbers[i], &public_values[i]);
    }
    qx_secret<gss_key_size> key, held;
    number = shared_key(*keys, own.private_numbers, start.pDHValues, key.data());
    if (number != KM_OK) {
        return number;
    }
    size_t length = held.size();
    number = getEncKey(*keys, name, 0, 0, held.data(), &length, nullptr);
    if (number != KM_NAME_UNKNOWN) {
        return number == KM_OK || number == KM_BUFFER_SMALL || number == KM_WRONG_DATA ? KM_KEY_EXISTS
                                                                                       : number;
    }
    return keys->first_contact ? set_transfer_key(keys, name, key.data()) : KM_UNEXPECTED;
}

void copy_field(char* out, const char field[32]) {
    if (out != nullptr) {
        memcpy(out, field, 32);
        out[32] = '\0';
    }
}

}  // namespace

key_exchange::~key_exchange() {
    qx_wipe(private_numbers, sizeof private_numbers);
}

// ---- what a frame holds

int tstCmd(const uint8_t* data, size_t length, bool* isGSS) {
    *isGSS = false;
    if (data == nullptr || length < 3) {
        return GSS_CMD_BAD_ARGUMENT;
    }
    if (gss_is_init_token(data, length)) {
        *isGSS = true;
        return GSS_CMD_NONE;
    }
    size_t told = data[1] < 128 ? data[1] + size_t{2} : data[1] == 129 ? data[2] + size_t{3} : 0;
    if (told != length) {
        return GSS_CMD_NONE;
    }
    switch (length) {
        case start_package_size:
            return GSS_CMD_START;
        case response_package_size:
            return GSS_CMD_RESPONSE;
        case 21:
            return GSS_CMD_20;
        case 7:
            return GSS_CMD_21;
        case 5:
            return GSS_CMD_18;
        case 6:
            return GSS_CMD_19;
        default:
            return GSS_CMD_NONE;
    }
}

int classifyData(const uint8_t* data, size_t length, int* command, bool* isGSS) {
    *command = tstCmd(data, length, isGSS);
    if (*command == GSS_CMD_BAD_ARGUMENT) {
        return KM_RANGE;
    }
    return *command == GSS_CMD_NONE && !*isGSS ? KM_WRONG_DATA : KM_OK;
}

// ---- agent's side

int cmdData(key_manager* keys, std::string_view name, int command, const uint8_t* data, size_t length,
            uint8_t* answer, size_t* answerLength, char* plugin, char* attributes) {
    size_t room = *answerLength;
    *answerLength = 0;
    if (!keys->open) {
        return KM_NOT_INITIALIZED;
    }
    if (command != GSS_CMD_START) {
        return command == GSS_CMD_RESPONSE ? KM_UNEXPECTED : KM_WRONG_DATA;
    }
    if (length != start_package_size) {
        return KM_WRONG_DATA;
    }
    if (room < response_package_size) {
        return KM_BUFFER_SMALL;
    }
    uint8_t opened[start_package_size];
    memcpy(opened, data, sizeof opened);
    startpack start;
    int number = decryptSPpackage(*keys, opened);
    if (number == KM_OK) {
        number = splitSPpackage(opened, sizeof opened, &start);
    }
    if (number != KM_OK) {
        return number;
    }
    copy_field(plugin, start.pKStorePlug);
    copy_field(attributes, start.pPIAttrib);
    resppack response;
    response.bEncode = start.bEncode;
    number = serve_start_package(keys, name, start, response.pDHValues);
    if (number != KM_OK) {
        response.bErrCode = static_cast<uint8_t>(number - KM_UNKNOWN);
        memset(response.pDHValues, 0, sizeof response.pDHValues);
    }
    buildRPpackage(response, answer);
    cryptRPpackage(*keys, answer);
    *answerLength = response_package_size;
    return number;
}

// ---- server's side

int key_exchange_start(const key_manager& keys, std::string_view name, key_exchange* exchange,
                       uint8_t package[start_package_size]) {
    if (!keys.open) {
        return KM_NOT_INITIALIZED;
    }
    startpack start;
    if (name.empty() || name.size() > sizeof start.pExName) {
        return KM_RANGE;
    }
    start.bEncode = exchange->encode;
    memcpy(start.pExName, name.data(), name.size());
    for (size_t i = 0; i < 4; ++i) {
        BuildInterKey(keys.generator, keys.modulus, &exchange->private_numbers[i], &start.pDHValues[i]);
    }
    buildSPpackage(start, package);
    return cryptSPpackage(keys, package);
}

int key_exchange_finish(const key_manager& keys, const key_exchange& exchange, const uint8_t* data,
                        size_t length, uint8_t key[gss_key_size]) {
    if (!keys.open) {
        return KM_NOT_INITIALIZED;
    }
    if (length != response_package_size) {
        return KM_WRONG_DATA;
    }
    uint8_t opened[response_package_size];
    memcpy(opened, data, sizeof opened);
    resppack response;
    int number = decryptRPpackage(keys, opened);
    if (number == KM_OK) {
        number = splitRPpackage(opened, sizeof opened, &response);
    }
    if (number != KM_OK) {
        return number;
    }
    if (response.bErrCode != 0) {
        return KM_UNKNOWN + response.bErrCode;
    }
    return shared_key(keys, exchange.private_numbers, response.pDHValues, key);
}

// ---- numbers

uint64_t XpowYmodN(uint64_t base, uint64_t exponent, uint64_t modulus) {
    uint64_t power = 1 % modulus;
    base %= modulus;
    for (; exponent != 0; exponent >>= 1) {
        if ((exponent & 1) != 0) {
            power = multiply_modulo(power, base, modulus);
        }
        base = multiply_modulo(base, base, modulus);
    }
    return power;
}

bool MillerRabin(uint64_t candidate, int rounds) {
    if (candidate < 4) {
        return candidate == 2 || candidate == 3;
    }
    if (candidate % 2 == 0) {
        return false;
    }
    uint64_t odd = candidate - 1;
    int halvings = 0;
    for (; odd % 2 == 0; odd /= 2) {
        ++halvings;
    }
    for (int round = 0; round < rounds; ++round) {
        uint64_t witness;
        GetRandomEx(&witness, sizeof witness);
        uint64_t power = XpowYmodN(witness % (candidate - 3) + 2, odd, candidate);
        bool passes = power == 1 || power == candidate - 1;
        for (int i = 1; i < halvings && !passes; ++i) {
            power = multiply_modulo(power, power, candidate);
            passes = power == candidate - 1;
        }
        if (!passes) {
            return false;
        }
    }
    return true;
}

int _compDHPrimes(const uint8_t* key, size_t length, uint64_t* generator, uint64_t* modulus) {
    if (key == nullptr || length == 0) {
        return KM_RANGE;
    }
    size_t start = key[start_position % length];
    *generator = next_prime(start);
    *modulus = next_prime((start + modulus_distance) % table_size);
    return *generator == 0 || *modulus == 0 ? KM_PRIMES : KM_OK;
}

void BuildInterKey(uint64_t generator, uint64_t modulus, uint64_t* private_number, uint64_t* public_value) {
    // A public value that the partner would refuse is drawn again.
    do {
        GetRandomEx(private_number, sizeof *private_number);
        *private_number = *private_number % (modulus - 2) + 1;
        *public_value = XpowYmodN(generator, *private_number, modulus);
    } while (*public_value < 2 || *public_value > modulus - 2);
}

int CalcEncryptionKey(uint64_t public_value, uint64_t private_number, uint64_t modulus, uint64_t* shared) {
    if (public_value < 2 || public_value > modulus - 2) {
        return KM_RANGE;
    }
    *shared = XpowYmodN(public_value, private_number, modulus);
    return KM_OK;
}
