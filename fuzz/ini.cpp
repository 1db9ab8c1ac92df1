// An INI file of any content: reading ends, stays within its buffers, and a value that was written is read
// back.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "base/profile.h"
#include "fuzz_file.h"
#include "log/log.h"

namespace {

void require(bool good) {
    if (!good) {
        abort();
    }
}

void read_everything(const char* file) {
    char list[600];
    const int length = GetPrvProfileString("GLOBAL", "", "", list, sizeof list, file);
    require(length >= 0 && length <= static_cast<int>(sizeof list));
    for (const char* key = list; length > 0 && key < list + length && *key != '\0'; key += strlen(key) + 1) {
        char value[8];
        require(GetPrvProfileString("GLOBAL", key, "preset", value, sizeof value, file) < 8);
    }
    FILE* stream = fopen(file, "r");
    char line[17];
    int result = 0;
    while (stream != nullptr && (result = GetProfZeile(stream, line, sizeof line)) >= 0) {
        require(result < 17 && strlen(line) == static_cast<size_t>(result));
    }
    fclose(stream);
}

// A line longer than a record is cut when it is read and may then be another section; "(FUZZ)" is a section
// only for the one that writes.
bool reads_differently(const std::string& content) {
    if (content.find('(') != std::string::npos) {
        return true;
    }
    size_t start = 0;
    while (start < content.size()) {
        const size_t end = std::min(content.find('\n', start), content.size());
        if (end - start > 200) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

void write_and_read_back(const std::string& content, const char* file) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
    require(WritePPString("FUZZ", "key", "value", file) == 1);
    if (!reads_differently(content)) {
        char value[16];
        GetPrvProfileString("FUZZ", "key", "", value, sizeof value, file);
        require(strcmp(value, "value") == 0);
    }
    require(__PutProfileString("FUZZ", "key", "other", file) == 1);
    unlink(file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    __log_set_logger(log_dummy);
    // In memory: syncing a disk would leave no time for anything else.
    static const std::string written = "/dev/shm/fuzz_ini_" + std::to_string(getpid());
    fuzz_file input(data, size);
    read_everything(input.name);
    // Only some inputs, so that reading gets its share.
    if (size > 0 && data[0] % 16 == 0) {
        write_and_read_back(std::string(reinterpret_cast<const char*>(data), size), written.c_str());
    }
    return 0;
}
