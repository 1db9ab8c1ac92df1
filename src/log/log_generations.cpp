// The generations of log and trace files.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/files.h"
#include "log/log_parts.h"

namespace {

void put_generation(char* run, int digits, int number) {
    char text[16];
    snprintf(text, sizeof text, "%.*d", digits, number);
    memcpy(run, text, static_cast<size_t>(digits));
}

}  // namespace

int log_move_generations(char* filename, size_t size, int count, moved_obstacle* moved) {
    char* run = filename == nullptr ? nullptr : strstr(filename, "##");
    if (run == nullptr) {
        return 0;
    }
    const int digits = static_cast<int>(std::min<size_t>(strspn(run, "#"), 7));
    int highest = 1;
    for (int i = 0; i < digits; ++i) {
        highest *= 10;
    }
    count = std::clamp(count, 0, highest - 1);
    put_generation(run, digits, count);
    if (FileRemove(filename) != 0 && errno == EPERM) {
        *moved = move_aside(filename);
    }
    std::string older(filename, strnlen(filename, size));
    for (int number = count; number > 0; --number) {
        put_generation(run, digits, number - 1);
        rename(filename, older.c_str());  // a generation that does not exist yet is no failure
        older = filename;
    }
    put_generation(run, digits, 0);
    return 0;
}

int ZULOGG_Reorg(char* filename, size_t size, int count) {
    moved_obstacle moved;
    return log_move_generations(filename, size, count, &moved);
}
