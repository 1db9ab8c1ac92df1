// Rows of a hex dump, as log and trace write them.
#pragma once

#include <cstddef>
#include <string>

// Appends one line for each 16 bytes: `indent` blanks, the offset as "%.8X", four groups of four bytes, the
// printable form. Rows equal to the one before are left out; "=" behind its offset marks the row before such
// a gap.
void append_hex_rows(std::string* out, size_t indent, const void* address, size_t length);
