// The error record that most operations fill.
#pragma once

#include <cstdarg>
#include <cstddef>

inline constexpr size_t qx_insert_size = 1024;

// qx_result  result of the call that failed
// qx_errno   errno of the failed call, or a code of the layer
// qx_msgnr   message number, 0 when there is none
// qx_msgInsert  inserts of that message, each ended by "|"
struct qx7_error {
    int qx_result = 0;
    int qx_errno = 0;
    int qx_msgnr = 0;
    char qx_msgInsert[qx_insert_size] = {};
};

// Sets all four fields. `format` is a printf format for the insert; it must be a constant of the program.
// A null `error` is allowed: the call then does nothing. Always returns -1, so that a caller may return it.
int qx_error_set(qx7_error* error, int result, int error_number, int message_number, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Back to the state of a new record.
void qx_error_clear(qx7_error* error);
