// Frames: the check as the bytes arrive and the reader of bodies. What the reader accepts must lie inside the
// body.
#include "messages/frame.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static TCPMSG_WORK_AREA* area = TcpMsg_Open(tcp_used_by_agent);
    std::vector<unsigned char> bytes(data, data + size);
    char text[64];
    unsigned flags = size > 0 ? data[size - 1] * 4U : 0U;
    TCP_Chk(area, bytes.data(), bytes.size(), tcp_chk_reader, text, sizeof text);
    TCP_Chk(area, bytes.data(), bytes.size(), flags | TCP_CHK_HEADER | TCP_CHK_BODY | TCP_CHK_NAT, text,
            sizeof text);

    frame_body body;
    qx7_error error;
    if (frame_parse_body(data, size, &body, &error) == 0 && body.length > 0) {
        if (body.offset > size || body.length > size - body.offset) {
            abort();
        }
        // What was read is written and read again: the same message, the same names.
        if (body.is_message) {
            std::vector<unsigned char> frame =
                frame_make_message(data + body.offset, body.length, body.address);
            frame_body again;
            if (frame_parse_body(frame.data() + frame_header_size, frame.size() - frame_header_size, &again,
                                 &error) != 0 ||
                again.length != body.length || again.address.src_acv != body.address.src_acv) {
                abort();
            }
        }
    }
    return 0;
}
