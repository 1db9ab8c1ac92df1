// The stat line of a process, whose name is the job's to choose. The first byte chooses: the bytes as the
// line, or as the name in a line whose figures are known, which must then come out as they are.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "jobs/process_info.h"

namespace {

bool read_line(const std::string& line, procArea_t* process) {
    char* copy = static_cast<char*>(malloc(line.size()));
    memcpy(copy, line.data(), line.size());
    const bool good = GetLinuxStaEntry(std::string_view(copy, line.size()), process);
    free(copy);
    return good;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    procArea_t process;
    if ((data[0] & 1) == 0) {
        read_line(text, &process);
        CnvTimeLinux(process.pa_start);
        process_start_time(process.pa_start);
        return 0;
    }
    // The kernel cuts a name at 15 bytes.
    const std::string name = text.substr(0, 15);
    const std::string line =
        "77 (" + name + ") S 11 12 13 0 -1 4194560 5 6 7 8 9 10 0 0 20 0 1 0 4711 1 2 3\n";
    if (!read_line(line, &process) || process.pa_pid != 77 || process.pa_ppid != 11 ||
        process.pa_pgid != 12 || process.pa_sid != 13 || process.pa_state != 'S' ||
        process.pa_start != 4711 || process.pa_ioCount != 15) {
        abort();
    }
    return 0;
}
