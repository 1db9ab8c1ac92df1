#include "security/md5.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "base/memory.h"
#include "security/md5_step.h"

namespace {

template <size_t... i>
[[gnu::always_inline]] inline void all_steps(uint32_t (&v)[4], const uint8_t* block,
                                             std::index_sequence<i...>) {
    (md5_step<i>(v, block), ...);
}

}  // namespace

void md5_blocks(uint32_t state[4], const uint8_t* data, size_t count) {
    uint32_t sum[4] = {state[0], state[1], state[2], state[3]};
    for (; count != 0; count--, data += 64) {
        uint32_t v[4] = {sum[0], sum[1], sum[2], sum[3]};
        all_steps(v, data, std::make_index_sequence<64>{});
        for (size_t i = 0; i < 4; ++i) {
            sum[i] += v[i];
        }
    }
    for (size_t i = 0; i < 4; ++i) {
        state[i] = sum[i];
    }
}

void md5_init(md5_context* context) {
    *context = {};
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
}

void md5_update(md5_context* context, const void* data, size_t length) {
    auto* bytes = static_cast<const uint8_t*>(data);
    size_t held = context->length % 64;
    context->length += length;
    if (held != 0) {
        size_t room = 64 - held, part = length < room ? length : room;
        memcpy(context->pending + held, bytes, part);
        bytes += part;
        length -= part;
        if (part < room) {
            return;
        }
        md5_blocks(context->state, context->pending, 1);
    }
    md5_blocks(context->state, bytes, length / 64);
    if (length % 64 != 0) {
        memcpy(context->pending, bytes + length / 64 * 64, length % 64);
    }
}

void md5_final(md5_context* context, uint8_t digest[md5_size]) {
    uint64_t bits = context->length * 8;
    size_t held = context->length % 64;
    uint8_t tail[72] = {0x80};
    size_t padding = (held < 56 ? 56 : 120) - held;
    memcpy(tail + padding, &bits, 8);
    md5_update(context, tail, padding + 8);
    memcpy(digest, context->state, md5_size);
    qx_wipe(context, sizeof *context);
}

void MD5Generate(const void* data, size_t length, uint8_t digest[md5_size]) {
    md5_context context;
    md5_init(&context);
    md5_update(&context, data, length);
    md5_final(&context, digest);
}

int MD5FileHash(const char* file, uint8_t digest[md5_size]) {
    int fd = open(file, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        return -1;
    }
    md5_context context;
    md5_init(&context);
    uint8_t buffer[16384];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0) {
            md5_update(&context, buffer, static_cast<size_t>(got));
        }
    }
    int saved = errno;
    close(fd);
    md5_final(&context, digest);
    errno = saved;
    return got < 0 ? -1 : 0;
}
