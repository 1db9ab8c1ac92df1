// The XML of file retrieval: what a request says, and the texts of the answers. Bytes in, bytes out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/error.h"
#include "messages/records_retrieval.h"

inline constexpr size_t file_request_text_max = 65536;  // a longer text is no request
inline constexpr size_t file_request_key_size = 64;     // with its NUL
inline constexpr int32_t file_request_block_min = 24;
inline constexpr int32_t file_request_block_max = 1 << 20;
inline constexpr size_t file_answer_error_max = 2048;
inline constexpr char file_requests_busy[] = "too many files are being read, try again in half a minute";
inline constexpr char file_request_no_key[] = "error, file request key not exist";

struct file_request {
    std::string addr, name, request, session, reqName, reqSrc;  // as they stand, entities and all
    uint32_t uidnr = 0;
    RCV_CD cdata{};  // numbers in host form, cd_blocksize within its bounds
};

// The key of a request: what stands between the quotes of `request="`. At most size - 1 characters. 0, or -1
// with 2001055 and an empty key.
int read_requestKey(std::string_view text, char* key, size_t size, qx7_error* error);

// The whole request. Only what stands outside of the CDATA section and, in a tag, outside of quotes counts as
// an attribute's name. 0, or -1 with 2001055 or 2001058.
int file_request_parse(std::string_view text, file_request* out, qx7_error* error);

// The answer with `record`, the head and the bytes of the file.
std::string file_answer_data(std::string_view key, std::string_view record);
// The answer with a failure, at most 2048 characters; the insert is cut to fit. The key is cut at its first
// blank, but for file_request_no_key.
std::string file_answer_error(std::string_view key, int number, std::string_view insert);
