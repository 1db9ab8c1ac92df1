// One item of a body, read with bounds: shared by the reader of bodies and the frame check.
#pragma once

#include <cstddef>

struct item_view {
    unsigned char key;
    size_t head;  // key and length field
    const unsigned char* data;
    size_t size;  // of the data
};

enum item_state {
    item_whole,
    item_incomplete,  // not all of it is there yet
    item_cut          // it would reach behind the frame, or its length is no number
};

// Reads the item at `bytes`: `available` bytes are there, `whole` would be there when the frame is complete.
item_state read_item(const unsigned char* bytes, size_t available, size_t whole, size_t field_size,
                     item_view* item);

// Whether a key's data may have this size; keys without a rule take all.
bool item_size_allowed(unsigned char key, size_t size);
