#include "base/error_text.h"

#include <cerrno>
#include <cstring>

#include "base/message_numbers.h"

namespace {

int set_error(qx7_error* error, int error_number, int message_number, const std::string& insert) {
    qx_error_set(error, -1, error_number, message_number, "%s", insert.c_str());
    errno = error_number;
    return -1;
}

}  // namespace

std::string error_text(int error_number) {
    const char* text = strerrordesc_np(error_number);
    return text == nullptr ? "Unknown error " + std::to_string(error_number) : text;
}

std::string call_insert(std::string_view call, int error_number) {
    return std::string(call) + "|" + std::to_string(error_number) + "|" + error_text(error_number) + "|";
}

std::string call_insert(std::string_view call, std::string_view what, int error_number) {
    return call_insert(std::string(call).append("|").append(what), error_number);
}

int call_error(qx7_error* error, std::string_view call, int error_number) {
    return set_error(error, error_number, number_system_call, call_insert(call, error_number));
}

int file_error(qx7_error* error, std::string_view call, std::string_view file, int error_number) {
    return set_error(error, error_number, number_file_call, call_insert(call, file, error_number));
}
