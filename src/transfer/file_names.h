// Destination names of files that a wildcard found.
#pragma once

#include <string>
#include <string_view>
#include <vector>

enum FileSystemType : int {
    fs_unix = 0,
    fs_windows = 1,
    fs_zos = 2,
    fs_zos_uss = 3,
    fs_bs2000 = 4,
    fs_os400 = 5,
    fs_os400_ifs = 6,
    fs_nsk = 7,
    fs_vms = 8,
    fs_gcos = 9,
    fs_count = 10,
};

extern const char* const fsTypes[fs_count];

// nr      63066 type not supported here, 63067 no such type, 63068 part of a mask longer than its text,
//         63069 source does not fit its mask, 36 (errno) result longer than the output
// insert  its inserts
struct ftxerr {
    int nr = 0;
    std::string insert;
};

// What one '?' or '*' stands for; empty ones count too.
using insertion = std::string;

// Replaces the path delimiter of a type. No effect for a type that does not exist.
void fngSetDelimiter(int type, char delimiter);

// Name of `srcFile`, which `srcMask` found, as `dstMask` wants it: '*' is all that the wildcards stand for
// from the first to the last, "&1" to "&9" single ones, "&0" nothing. Names have no limit but `outSize`, the
// most bytes that the result may have. 0, or -1 with `err`.
int fngConvert(std::string_view srcMask, std::string_view srcFile, std::string_view dstMask, std::string* out,
               size_t outSize, int srcType, int dstType, ftxerr* err);

// The same for a folder: what lies behind the source mask's folder moves behind that of the destination mask.
// Types 0 and 1 only. 0, or the number that `err` holds.
int fngConvertDirectory(std::string_view srcMask, std::string_view srcPath, std::string_view dstMask,
                        std::string* out, size_t outSize, int srcType, int dstType, ftxerr* err);

// Matches `src` with `mask`. `inserts` get what each wildcard stands for, `wcInsert` the text from the first
// one to the end of the last one. Text of `src` behind the end of the mask does no harm. 0, or -1 with `err`.
int evaluateInserts(std::string_view mask, std::string_view src, bool caseSensitive,
                    std::vector<insertion>* inserts, std::string* wcInsert, ftxerr* err);

// Splits `text` among the '?' and '*' of `run`.
int evaluateMaskPart(std::string_view run, std::string_view text, std::vector<insertion>* inserts,
                     ftxerr* err);

// Place of `needle` in `hay`, npos when there is none.
size_t xstrstr(std::string_view hay, std::string_view needle, bool caseSensitive);

std::string convertVMS2UNIX(std::string_view in);
std::string convertUNIX2VMS(std::string_view in);
