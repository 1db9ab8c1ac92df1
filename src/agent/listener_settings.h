// What the agent hands to the program that it starts as its listener: descriptors under fixed numbers, and
// one record with settings. No key, no password, and nothing of the INI file beyond it.
#pragma once

#include <cstdint>

#include "base/context.h"

// The only argument of the listener's command line.
inline constexpr char listener_argument[] = "--listener";

inline constexpr int listener_record_fd = 3;
inline constexpr int listener_pair_fd = 4;
inline constexpr int listener_first_socket_fd = 5;
inline constexpr int listener_sockets_max = 2;

inline constexpr char listener_record_mark[16] = "#QXLISTENER";

// Both sides are the same program; the marks tell when they are not. Texts end inside their fields.
struct listener_settings {
    char eyec[16];
    char version[64];
    int32_t size;     // of this record
    int32_t sockets;  // 1 to listener_sockets_max
    int32_t port;
    int32_t max_frame;  // largest frame in bytes
    char program[256];
    char agent[33];
    char bindaddr[64];
    char trc_file[qx_path_size];  // the listener's own
    char trc_levels[16];
    int32_t trc_count;
    int32_t trc_max_size;
    int32_t trc_flag;
    uint32_t trc_file_limit;
    char trc_thread;
    char trc_trigger_type;
    char trc_trigger_text[1024];
};

// 0, or -1 when the record is not one of this program.
int listener_settings_check(const listener_settings& settings);
