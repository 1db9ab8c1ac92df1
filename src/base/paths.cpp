#include "base/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/text.h"

namespace {

constexpr size_t path_limit = 4095;

int fit(std::string_view path, char* out, size_t size) {
    if (path.size() > path_limit || path.size() >= size) {
        errno = ERANGE;
        return -1;
    }
    copy_text(out, size, path);
    return 0;
}

std::string joined(std::string_view base, std::string_view name) {
    std::string path(base);
    if (path.empty() || path.back() != '/') {
        path += '/';
    }
    return path.append(name);
}

}  // namespace

int GetFilePfad(const char* name, const char* baseDir, char* out, size_t size) {
    const std::string_view wanted = name == nullptr ? "" : name;
    const std::string_view base = baseDir == nullptr ? "" : baseDir;
    if (wanted.empty()) {
        return fit(joined(base, ""), out, size);
    }
    if (wanted.front() == '/') {
        return fit(wanted, out, size);
    }
    const std::string path = joined(base, wanted);
    if (path.size() > path_limit) {
        errno = ERANGE;
        return -1;
    }
    const size_t slash = path.rfind('/');
    const std::string directory = path.substr(0, slash);
    if (fileExists(directory.empty() ? "/" : directory.c_str(), nullptr) == 0) {
        return -1;
    }
    return fit(path, out, size);
}

int GetPfad(const char* base, const char* name, char* out, size_t size) {
    const std::string_view wanted = name == nullptr ? "" : name;
    if (!wanted.empty() && wanted.front() == '/') {
        return fit(wanted, out, size);
    }
    return fit(joined(base == nullptr ? "" : base, wanted), out, size);
}

int createUnixPath(const char* base, const char* name, char* out, qx7_error* error) {
    qx_error_clear(error);
    std::vector<char> path(path_limit + 1);
    if (GetPfad(base, name, path.data(), path.size()) != 0) {
        return file_error(error, "GetPfad()", name == nullptr ? "" : name, errno);
    }
    char* resolved = realpath(path.data(), nullptr);
    const int result = fit(resolved == nullptr ? path.data() : resolved, out, path_limit + 1);
    free(resolved);
    return result == 0 ? 0 : file_error(error, "realpath()", path.data(), errno);
}

int create_Path(const char* base, const char* name, char* out, qx7_error* error) {
    return createUnixPath(base, name, out, error);
}

int Back_Dir(char* path) {
    size_t length = strlen(path);
    while (length > 1 && path[length - 1] == '/') {
        --length;
    }
    while (length > 0 && path[length - 1] != '/') {
        --length;
    }
    if (length == 0) {
        return -1;
    }
    while (length > 1 && path[length - 1] == '/') {
        --length;
    }
    if (length == 1 && strspn(path, "/") == strlen(path)) {
        return -1;
    }
    path[length] = '\0';
    return 0;
}

std::string_view path_file_name(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view path_folder_name(std::string_view path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return {};
    }
    return path.substr(0, slash == 0 ? 1 : slash);
}

std::string path_clean(std::string_view path) {
    std::string clean;
    if (!path.empty() && path.front() == '/') {
        clean = "/";
    }
    for (std::string_view part : split_words(path, '/')) {
        if (part.empty() || part == ".") {
            continue;
        }
        if (!clean.empty() && clean.back() != '/') {
            clean += '/';
        }
        clean += part;
    }
    return clean;
}

int GetCurrDir(char* out, size_t size) {
    return getcwd(out, size) == nullptr ? -1 : 0;
}

int ChangeToDir(const char* path) {
    return chdir(path);
}

int GetUserHomeDir(const char* user, char* out, size_t size) {
    effUser_guard guard;
    std::vector<char> buffer(16384);
    passwd entry;
    passwd* found = nullptr;
    int result = 0;
    while ((result = getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
           buffer.size() < (1U << 24)) {
        buffer.resize(buffer.size() * 2);
    }
    if (found == nullptr) {
        errno = result == 0 ? ENOENT : result;
        return -1;
    }
    return fit(entry.pw_dir, out, size);
}
