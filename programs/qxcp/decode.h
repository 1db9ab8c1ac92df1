// Shows messages and frames as JSON lines.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

struct cp_decode_options {
    bool to_lan = false;  // walk as outgoing messages, else as received ones
};

// Reads `path`, or standard input when it is empty or "-". Returns the command's exit code: 0, or 1 when the
// input cannot be read or a line of it is no message.
//
// Input: one message or frame a line in hex (blanks between bytes are passed over, an empty line is an empty
// message), or a binary capture that begins with a frame. Output: one JSON line for each message and each
// frame.
int cp_decode(const cp_decode_options& options, const std::string& path);

// Appends the JSON line of one message to `out`: result, number, insert and warnings of the walk, the head,
// and the fields by name. Texts come without padding; bytes that are no text as "hex:…". `message` may be
// changed by the walk.
void cp_decode_message(const cp_decode_options& options, std::span<unsigned char> message, std::string* out);

// Whether `bytes` begin with the header of a frame.
bool cp_is_frame(std::span<const unsigned char> bytes);

// Appends a JSON line for each frame of a capture: "frame" with length, protocol and addresses, and what it
// carries. False when the capture ends inside a frame or holds bytes that are none.
bool cp_decode_frames(const cp_decode_options& options, std::span<unsigned char> capture, std::string* out);

// Appends the JSON lines of one line of hex. False when it is none; a line with "error" stands in `out` then.
bool cp_decode_line(const cp_decode_options& options, std::string_view line, std::string* out);
