// INI files: reading values and key lists, and the two ways of writing a value.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string>

#include "base/context.h"

inline constexpr int ini_record_size = 257;
inline constexpr int ini_list_limit = 4096;

// One line of a file that is rewritten as a whole, without its line end.
struct INI_FILE_RECORD {
    std::string cRec;
};

// Told of each value that is read and its preset, null for none. The test of the table of settings listens
// here.
extern void (*profile_read_watch)(const char* section, const char* key, const char* preset);

// The value, or `preset` when section, key or value is missing. An empty key gives the section's key names,
// each ended by NUL, the list by a second NUL. The buffer is shared by all calls (main thread only) and is
// overwritten by the next one; loops over a key list copy the list first. `preset` may lie in that buffer.
const char* GetProfileString(const char* file, const char* section, const char* key, const char* preset);
// The same into `buffer`, at most size - 1 bytes and a NUL (two for a list); any thread. Result: the length.
int GetPrvProfileString(const char* section, const char* key, const char* preset, char* buffer, size_t size,
                        const char* file);
// Sets, with a null value deletes, and rewrites the file; a file that does not exist starts empty. 1 or 0.
// A new file gets mode `new_mode`; an existing one keeps owner and mode.
int __PutProfileString(const char* section, const char* key, const char* value, const char* file,
                       mode_t new_mode = 0600);
// 0 for a null or empty section or file, otherwise WritePPString.
int WritePrivateProfileString(const char* section, const char* key, const char* value, const char* file);
// A key or value with bytes below 32, a key with "=" and a section with "]" are refused (EINVAL).
// Changes one line and copies all others byte for byte. The file keeps owner and mode, a link stays a link,
// and it is replaced only after everything was written and synced. 1 when it was written or already held the
// value, else 0 with errno (message 2003041 is logged when an existing file could not be replaced).
int WritePPString(const char* section, const char* key, const char* value, const char* file);
// ']' for a line beginning '[', ')' for '(', else 0.
char IfSection(const char* line);
// Next line that is neither empty nor a comment, with the blanks around its key dropped; length or -4715.
int GetProfZeile(FILE* stream, char* buffer, int size);
// The same, and counts the lines of the file in *line. *cut: this one is longer than the buffer, and its rest
// will be read as a line of its own. Both are the caller's, 0 and false before the first line.
int profile_read_line(FILE* stream, char* buffer, int size, int* line, bool* cut);
// Next line without bytes below 32, at most size - 1; length or -4715.
int ReadProfZeile(FILE* stream, char* buffer, int size);

// The same through the context's INI file; the services of EX_PCX point here.
int m_getProfileString(EX_PCX* pcx, const char* section, const char* key, const char* preset, char* out,
                       size_t size);
// True for "1", "Y", "YE", "YES" in any case.
bool m_getProfileBool(EX_PCX* pcx, const char* section, const char* key, const char* preset);
int m_getProfileInt(EX_PCX* pcx, const char* section, const char* key, const char* preset);
int m_putProfileString(EX_PCX* pcx, const char* section, const char* key, const char* value);
