#include "security/random.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include "base/memory.h"
#include "security/md5.h"

namespace {

// Start values of the registers; any that are not zero serve. The seed chooses among them and is mixed into
// them.
constexpr uint32_t g_InitSeed[16] = {0x3C6EF372, 0x9B05688C, 0x1F83D9AB, 0xA54FF53A, 0x510E527F, 0xBB67AE85,
                                     0x5BE0CD19, 0x6A09E667, 0xCBBB9D5D, 0x629A292A, 0x9159015A, 0x152FECD8,
                                     0x67332667, 0x8EB44A87, 0xDB0C2E0D, 0x47B5481D};

// Feedback of three registers whose lengths have no common divisor; each runs through all its states but
// zero.
constexpr uint32_t taps_1 = 0x80200003;  // x^32 + x^22 + x^2 + x + 1
constexpr uint32_t taps_2 = 0x48000000;  // x^31 + x^28 + 1
constexpr uint32_t taps_3 = 0x14000000;  // x^29 + x^27 + 1
constexpr uint32_t mask_2 = 0x7FFFFFFF;
constexpr uint32_t mask_3 = 0x1FFFFFFF;

struct registers {
    uint32_t first = 0, second = 0, third = 0;
    bool seeded = false;

    ~registers() { clear(); }
    void clear() {
        qx_wipe(&first, sizeof first);
        qx_wipe(&second, sizeof second);
        qx_wipe(&third, sizeof third);
        seeded = false;
    }
};

thread_local registers state;

uint32_t run_register(uint32_t* value, uint32_t taps) {
    uint32_t out = *value & 1;
    *value = (*value >> 1) ^ (taps & (0u - out));
    return out;
}

uint32_t RunLSFR1() {
    return run_register(&state.first, taps_1);
}
uint32_t RunLSFR2() {
    return run_register(&state.second, taps_2);
}
uint32_t RunLSFR3() {
    return run_register(&state.third, taps_3);
}

// One byte: bit by bit the first register chooses which of the other two counts.
uint8_t register_byte() {
    unsigned byte = 0;
    for (int i = 0; i < 8; ++i) {
        uint32_t a = RunLSFR1(), b = RunLSFR2(), c = RunLSFR3();
        byte = (byte << 1) | ((a & b) ^ (~a & c & 1));
    }
    return static_cast<uint8_t>(byte);
}

void kernel_random(void* out, size_t length) {
    auto* bytes = static_cast<uint8_t*>(out);
    while (length != 0) {
        ssize_t got = getrandom(bytes, length, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            fprintf(stderr, "no random numbers from the system: %s\n", strerror(errno));
            abort();
        }
        bytes += got;
        length -= static_cast<size_t>(got);
    }
}

}  // namespace

void GetSeed(uint8_t* seed, size_t length) {
    struct {
        timespec real, monotonic, processor;
        tms ticks;
        rusage usage;
        clock_t now;
        pid_t pid, parent;
        const void* stack;
        uint8_t kernel[32];
    } sources;
    memset(&sources, 0, sizeof sources);
    clock_gettime(CLOCK_REALTIME, &sources.real);
    clock_gettime(CLOCK_MONOTONIC, &sources.monotonic);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &sources.processor);
    sources.now = times(&sources.ticks);
    getrusage(RUSAGE_SELF, &sources.usage);
    sources.pid = getpid();
    sources.parent = getppid();
    sources.stack = &sources;
    for (size_t done = 0; done < length; done += md5_size) {
        kernel_random(sources.kernel, sizeof sources.kernel);
        uint8_t digest[md5_size];
        MD5Generate(&sources, sizeof sources, digest);
        memcpy(seed + done, digest, length - done < md5_size ? length - done : md5_size);
        qx_wipe(digest, sizeof digest);
    }
    qx_wipe(&sources, sizeof sources);
}

void InitRandom() {
    uint8_t seed[16];
    GetSeed(seed, sizeof seed);
    uint32_t mixed[3];
    memcpy(mixed, seed + 4, sizeof mixed);
    state.first = g_InitSeed[seed[0] % 16] ^ mixed[0];
    state.second = (g_InitSeed[seed[1] % 16] ^ mixed[1]) & mask_2;
    state.third = (g_InitSeed[seed[2] % 16] ^ mixed[2]) & mask_3;
    // A register that stands at zero stays there.
    state.first |= state.first == 0;
    state.second |= state.second == 0;
    state.third |= state.third == 0;
    state.seeded = true;
    qx_wipe(seed, sizeof seed);
    qx_wipe(mixed, sizeof mixed);
}

void CloseRandom() {
    state.clear();
}

void GetRandomEx(void* out, size_t length) {
    if (!state.seeded) {
        InitRandom();
    }
    kernel_random(out, length);
    auto* bytes = static_cast<uint8_t*>(out);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(bytes[i] ^ register_byte());
    }
}

uint32_t GetRandom() {
    uint32_t value;
    GetRandomEx(&value, sizeof value);
    return value;
}

int gss_GetRandom(void* out, size_t length) {
    if (out == nullptr) {
        return 5002;
    }
    GetRandomEx(out, length);
    return 0;
}

int getRandomEx2(void* out, size_t length) {
    return gss_GetRandom(out, length);
}
