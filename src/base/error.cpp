#include "base/error.h"

#include <cstdio>

int qx_error_set(qx7_error* error, int result, int error_number, int message_number, const char* format,
                 ...) {
    if (error == nullptr) {
        return -1;
    }
    error->qx_result = result;
    error->qx_errno = error_number;
    error->qx_msgnr = message_number;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(error->qx_msgInsert, sizeof error->qx_msgInsert, format, arguments);
    va_end(arguments);
    return -1;
}

void qx_error_clear(qx7_error* error) {
    if (error != nullptr) {
        *error = qx7_error{};
    }
}
