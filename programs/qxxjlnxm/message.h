// The MELD of a call, as the frame that goes to the listener.
#pragma once

#include <cstddef>
#include <ctime>

#include "messages/frame.h"
#include "messages/records_meld.h"
#include "request.h"

// The largest record is that of a variable; a file's is shorter.
inline constexpr size_t largest_record = sizeof(JP_EXMLDV) + sizeof(MSG_TYPE_STATUS_VALUE);
inline constexpr size_t largest_message = meld_record_offset + largest_record;
static_assert(largest_record >= sizeof(JP_EXMLDO) && largest_message >= sizeof(MSG_TYPE_MELD));

struct message_frame {
    unsigned char buffer[frame_headroom + largest_message + frame_tailroom];
    const unsigned char* bytes;  // of the frame, in the buffer
    size_t length;
};

void make_frame(const request& order, const timespec& now, message_frame* out);
