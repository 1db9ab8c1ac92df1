// The part of base64 that the processor's vector instructions do, where it has them. Only for base64.cpp and
// tests.
#pragma once

#include <cstddef>

inline constexpr size_t base64_line_bytes = 57;
inline constexpr size_t base64_line_text = 76;

// Whole lines of base64_line_bytes at `from` to lines of base64_line_text, each with CR LF, at `to`.
using base64_line_encoder = void (*)(const unsigned char* from, char* to, size_t lines);
// The quick form of that; null where the processor has none.
base64_line_encoder base64_vector_lines();
