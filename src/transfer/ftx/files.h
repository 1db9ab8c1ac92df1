// System calls on the files of a transfer. A file is named by the folder that holds it, open as a place, and by
// its name in there; files are regular ones or nothing. Failures are -1 with errno.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/error.h"

struct ftx_elem;
struct ftx_entry;

// For reading; `status` is what it is then. A link as last part is ELOOP without `links`; EACCES for what the
// kernel makes up.
int FTX_openFileRead(int folder, const char* name, bool links, struct stat* status);
// For writing, empty. `only_new`: EEXIST when there is one. Never through a link.
int FTX_openFileWrite(int folder, const char* name, bool only_new);
// What is there, for reading and writing, as it is; ENOENT without it. Never through a link.
int FTX_openFileReadWrite(int folder, const char* name);
// What is there, to write behind its end, where the descriptor stands. `reading`: to read it, too.
int FTX_openFileAppend(int folder, const char* name, bool reading);
// Closes it in any case.
int FTX_closeFdFile(qx_descriptor* file);
// `replace` false: EEXIST when there is a file of that name, which stays.
int FTX_renameFile(int folder, const char* from, const char* to, bool replace);
// Whether two files hold the same; with `to_disk` also whether the other one is on the disk then.
bool FTX_sameContent(int folder, const char* one, const char* other, bool to_disk);

// The temporary name of a file, beside its destination.
std::string create_TempPath(const ftx_entry* ftx, const ftx_elem* elem);
// Whether a file is this user's own and has no other name.
bool ftx_is_own_file(int fd);
// So that what was written and renamed is there after a crash.
int ftx_sync_folder(int folder);
// The same for open files or folders, in one go where that is sure. For each: 0, or the errno of its failure.
std::vector<int> ftx_sync_all(const std::vector<int>& descriptors);
// 0, or -1 with 11482 when the file system of the folder that is, or would be, `path` has less room than
// `size` bytes.
int ftx_check_space(const ftx_entry* ftx, const std::string& path, const std::string& file, int64_t size,
                    qx7_error* err);

// Fails a call by chance, one time in `chance`; 0: never.
bool ftx_simulated(int chance);
