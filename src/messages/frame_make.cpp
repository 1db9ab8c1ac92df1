// Whole frames in buffers of their own. Apart from frame.cpp, which needs the C library alone: the job
// messenger links no other.
#include <cstring>

#include "messages/frame.h"

std::vector<unsigned char> frame_make_message(const void* message, size_t length,
                                              const frame_address& address) {
    if (length > static_cast<uint64_t>(frame_length_max)) {
        return {};
    }
    std::vector<unsigned char> buffer(frame_headroom + length + frame_tailroom);
    if (length > 0) {
        memcpy(buffer.data() + frame_headroom, message, length);
    }
    unsigned char* body = nullptr;
    unsigned char* frame = nullptr;
    size_t body_length = frame_wrap_message(buffer.data() + frame_headroom, length, address, &body);
    int64_t whole = frame_wrap_body(body, body_length, protocol_native, &frame);
    if (whole < 0) {
        return {};
    }
    return {frame, frame + whole};
}

std::vector<unsigned char> frame_make_item(unsigned char key, const void* data, size_t length) {
    unsigned char head[8];
    size_t head_size = item_write_head(head, key, length);
    if (head_size == 0 || length > static_cast<uint64_t>(frame_length_max) - frame_header_size - head_size) {
        return {};
    }
    std::vector<unsigned char> frame(frame_header_size + head_size + length);
    frame_set_header(frame.data(), protocol_native, static_cast<int64_t>(frame.size()));
    memcpy(frame.data() + frame_header_size, head, head_size);
    if (length > 0) {
        memcpy(frame.data() + frame_header_size + head_size, data, length);
    }
    return frame;
}
