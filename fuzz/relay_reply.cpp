// Replies of a mail relay, as the bytes arrive: a reply is taken whole or not at all, and never differently
// for the way in which it was cut.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "services/relay.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    while (true) {
        relay_reply reply;
        const long used = relay_parse_reply(bytes, &reply);
        if (used <= 0) {
            return 0;
        }
        if (static_cast<size_t>(used) > bytes.size() || reply.code < 200 || reply.code > 599 ||
            reply.lines.empty() || reply.lines.size() > relay_lines_max) {
            abort();
        }
        relay_reply cut;
        for (const long length : {used - 1, used / 2}) {
            if (relay_parse_reply(bytes.substr(0, static_cast<size_t>(length)), &cut) > 0) {
                abort();
            }
        }
        EhloExt able;
        receiveEhloResponse(reply, &able);
        bytes.remove_prefix(static_cast<size_t>(used));
    }
}
