// Path names: completion, resolution, and the parts of a path.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/error.h"

// Completes a name: empty gives baseDir with a '/', absolute names are copied, others are baseDir/name, whose
// directory must exist. 0, or -1 with errno; ERANGE when it does not fit.
int GetFilePfad(const char* name, const char* baseDir, char* out, size_t size);
// base/name, nothing tested; absolute names are copied. 0, or -1 with ERANGE.
int GetPfad(const char* base, const char* name, char* out, size_t size);
// GetPfad, then resolved by realpath where it exists; a path that does not resolve stays as it was.
// `out` has room for 4096 bytes. 0, or -1 with the error filled (2003041).
int createUnixPath(const char* base, const char* name, char* out, qx7_error* error);
int create_Path(const char* base, const char* name, char* out, qx7_error* error);
// Cuts the last part of a path, in place: "/a/b/" and "/a/b" become "/a". 0, or -1 when nothing is left to
// cut.
int Back_Dir(char* path);
// The part behind the last '/' and the part before it ("" when there is none, "/" for the root).
std::string_view path_file_name(std::string_view path);
std::string_view path_folder_name(std::string_view path);
// Removes repeated slashes and "." parts; ".." stays.
std::string path_clean(std::string_view path);

int GetCurrDir(char* out, size_t size);
int ChangeToDir(const char* path);
// Home of a user by name; 0, or -1 with errno. Takes the effective-user lock.
int GetUserHomeDir(const char* user, char* out, size_t size);
