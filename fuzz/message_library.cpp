// A message library of any content, asked for its numbers with inserts taken from the same bytes.
#include "log/message_library.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The first half are inserts, the second the library.
    const std::string inserts(reinterpret_cast<const char*>(data), std::min<size_t>(size / 2, 3000));
    fuzz_file file(data + size / 2, size - size / 2);
    PZUHELP library = ZUHELP_Open(file.name, 2);
    if (library == nullptr) {
        return 0;
    }
    const size_t lines = std::min<size_t>(library->entries.size(), 20);
    for (size_t i = 0; i < lines; ++i) {
        const std::string key(library->entries[i].key, 9);
        ZUHELP_SetLang(library, key[8], 'E');
        for (int length : {-1, 0, static_cast<int>(inserts.size())}) {
            char out[100];
            ZUHELP_MSGINFO info;
            const int number = atoi(key.substr(0, 8).c_str());
            if (ZUHELP_Msg(library, number, length, inserts.c_str(), sizeof out, out, &info) != 0 ||
                strlen(out) >= sizeof out || out[0] != 'U') {
                abort();
            }
        }
    }
    ZUHELP_Close(library);
    return 0;
}
