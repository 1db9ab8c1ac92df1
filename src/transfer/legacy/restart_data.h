// Restart data of the older protocol: what each side knows about a transfer that may go on later. The server
// keeps them and gives them back with the order.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// The part of one side.
//
// msg_number   11471 when only the final rename is missing, else 0
// seek         receiver: the position in its file up to which everything stands; sender: in its file, 0 for text
struct DATA_FT_STP {
    int32_t msg_number = 0;
    int32_t sta_cnt = 0;
    int64_t file_size = 0;
    int64_t transferred = 0;
    int64_t records = 0;
    int64_t seek = 0;
    int64_t compressed = 0;
    std::string folder;
    std::string file_name;
    std::string temp_name;  // empty: the file itself was written
};

// What a message carries: the writer's part, and what the writer had from its partner.
struct restart_parts {
    std::string_view own;
    std::string_view copied;
};

std::string make_stp_part(const DATA_FT_STP& data);
// False for a part that is not whole, has negative numbers, or whose names hold what no name may.
bool read_stp_part(std::string_view part, DATA_FT_STP* data);

std::string make_restart_data(std::string_view own, std::string_view copied);
// False when the two lengths do not fit. Views into `data`.
bool read_restart_data(std::span<const unsigned char> data, restart_parts* parts);
