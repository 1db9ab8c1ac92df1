// The message library: texts by number, from a file that is read as it is needed.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/context.h"

inline constexpr char default_message_library[] = "QXX.msl";

struct PZUHELP_KEYBUF_ENTRY {
    char key[9];  // number, left-padded with "0" to 8 digits, then the language letter
    off_t pos;    // position of the line in the file
};

// Records already read, by key; it never shrinks.
using ZUHELP_Cache = std::map<std::array<char, 9>, std::string>;

// The library is read by descriptor and position, so that a forked child never moves its parent's place in
// the file.
struct _pzuhelp {
    char id[4] = {'%', 'H', 'L', 'P'};
    char mainLang = 'D';
    char subLang = 'D';
    char filename[qx_path_size] = {};
    int fd = -1;
    int keylen = 0;                             // position of the type character
    std::vector<PZUHELP_KEYBUF_ENTRY> entries;  // sorted by key; of equal keys only the first in the file
    ZUHELP_Cache cache;
};
using PZUHELP = _pzuhelp*;
extern PZUHELP GlbHlpHnd;

// What the library says about one message besides its text.
struct ZUHELP_MSGINFO {
    char typ;
    char filler;
    int level;
};

// A handle for the file (null or empty: QXX.msl), or null with errno.
PZUHELP ZUHELP_Open(const char* filename, int cache);
int ZUHELP_Close(PZUHELP handle);
int ZUHELP_SetLang(PZUHELP handle, char main_language, char sub_language);
int ZUHELP_GetLang(PZUHELP handle, char* main_language, char* sub_language);
// Descriptor of the library file, -1 for a bad handle.
int ZUHELP_GetFd(PZUHELP handle);
// "U%.8d " and the text with its inserts filled in, cut to bufLen - 1 and terminated. insLen below 0: insTxt
// is a string; 0: no inserts; above: its length, trailing blanks dropped. msgInfo may be null. Called under
// the log lock. 0, or 1 for a bad handle; an unknown number gives its number and the bare inserts.
int ZUHELP_Msg(PZUHELP handle, int number, int insLen, const char* insTxt, size_t bufLen, char* bufAddr,
               ZUHELP_MSGINFO* msgInfo);
// Fills inserts into a text with &NN and $NN markers; for callers that have a text without the library.
std::string zuhelp_fill(std::string_view text, std::string_view inserts);
