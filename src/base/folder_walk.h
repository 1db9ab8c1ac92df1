// A walk through a folder and what lies below it: every entry is told to a function.
//
// The walk goes by descriptors and never enters a link, so that a tree that others change meanwhile leads
// nowhere else; what vanishes while the walk is under way is passed over. It holds two descriptors at a time,
// however deep the tree is. Names are bytes.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "base/error.h"
#include "base/files.h"

// What the function is called for.
enum folder_walk_event : int {
    WALK_ENTRY = 1,
    WALK_FOLDER_ENTERED = 2,
    WALK_FOLDER_FAILED = 3,  // a folder below the first cannot be read; error_number tells
    WALK_MISSING = 4,        // a single name that is not there; error_number tells
};

struct walk_entry {
    int folder = -1;  // descriptor of the folder that holds it, valid during the call
    const char* name = "";
    unsigned char kind = FILE_KIND_NONE;  // file_kind; a link shows as FILE_KIND_LINK
    bool matches = false;                 // the mask fits its last part
    unsigned depth = 0;                   // 0: directly in the walk's folder
    int error_number = 0;
    // Of the entry itself; of a link, with `follow`, what it leads to when that is a regular file.
    struct stat status = {};
    bool leads_to_file = false;
};

// Order and outcome of a walk.
struct _My_Area {
    char my_id[16] = {};
    void* my_struct = nullptr;  // the caller's own
    int folder = -1;            // where it begins, open (O_PATH will do); stays the caller's
    std::string path;           // stands in front of each told name, with its '/'
    std::string mask = "*";
    bool recursion = false;
    bool follow = false;        // ask what links lead to
    int flag = 0;               // the caller's own
    unsigned max_depth = 0;     // levels below the first that are entered; 0: all
    uint64_t max_files = 0;     // files that match; 0: no limit
    int64_t deadline_ms = 0;    // on alarm_now_ms(); 0: none
    bool depth_met = false;     // something lies deeper
    bool files_met = false;     // there are more files
    bool deadline_met = false;  // the walk was broken off
    uint64_t files = 0;         // that match and were told
    uint64_t folders = 0;       // that were told
};

// `name` is the area's path and what lies behind it. Another result than 0 ends the walk.
using My_func = int (*)(_My_Area* area, const std::string& name, const walk_entry& entry,
                        folder_walk_event event);

// All entries of the folder, of its subfolders too with `recursion`; a folder is told before what it holds.
// 0, 1 when the function ended it, or -1 with `error` (2003041) when the first folder cannot be read.
int tq_FileHandler(_My_Area* area, My_func func, qx7_error* error);
// One name alone: it is told as `path`, and looked up as `mask` from `folder` (AT_FDCWD will do). 0, or 1 when
// the function ended it.
int single_FileHandler(_My_Area* area, My_func func);
