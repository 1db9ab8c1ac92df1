#include "transfer/compress/error.h"

#include <cstdarg>
#include <cstdio>

int compressError(ErrMsg* err, int code, const char* format, ...) {
    err->code = code;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(err->text, sizeof err->text, format, arguments);
    va_end(arguments);
    return -1;
}
