// Filling of the compressor's error record.
#pragma once

#include "transfer/compress/compress.h"

// Sets code and inserts; `format` is a constant of the program. Returns -1.
int compressError(ErrMsg* err, int code, const char* format, ...) __attribute__((format(printf, 3, 4)));

inline void clearError(ErrMsg* err) {
    err->text[0] = 0;
    err->code = 0;
}
