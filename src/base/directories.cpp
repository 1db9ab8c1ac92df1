// Making, reading and removing directories.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"

namespace {

constexpr size_t longest_name = 512;
constexpr int deepest_level = 256;

// Calls make(prefix) for each prefix of the path that ends before a '/'; stops at the first that does not
// return 0.
template <typename Make>
int for_each_prefix(const char* path, Make make) {
    std::string whole(path);
    if (whole.empty() || whole.back() != '/') {
        whole += '/';
    }
    for (size_t slash = whole.find('/', 1); slash != std::string::npos; slash = whole.find('/', slash + 1)) {
        if (whole[slash - 1] == '/') {
            continue;
        }
        const int result = make(whole.substr(0, slash));
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

int directory_found(qx7_error* error, const std::string& name) {
    qx_error_set(error, -1, EISDIR, number_file_call, "GetStatBuf(S_ISDIR)|%s|%d|directory was found|",
                 name.c_str(), EISDIR);
    errno = EISDIR;
    return -1;
}

int prefix_error(qx7_error* error, const std::string& prefix, int number) {
    qx_error_set(error, 1, number, 0, "%s", prefix.c_str());
    errno = number;
    return 1;
}

// All names of a directory: they are read before anything is removed. -1 with errno.
int read_names(int directory, std::vector<std::string>* names) {
    const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    qx_directory reader(fdopendir(fd));
    if (reader.dir == nullptr) {
        close(fd);
        return -1;
    }
    while (const char* name = DirReadNext(reader.dir)) {
        if (strlen(name) > longest_name) {
            errno = ENAMETOOLONG;
            return -1;
        }
        names->emplace_back(name);
    }
    return errno == 0 ? 0 : -1;
}

// Opens a directory that is no link, so that a tree which changes during the walk leads nowhere else.
int open_directory(int parent, const char* name) {
    return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int remove_tree(int parent, const char* name, const std::string& path, int level, qx7_error* error);

int remove_entry(int directory, const std::string& name, const std::string& path, int level,
                 qx7_error* error) {
    struct stat status;
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return file_error(error, "GetStatBuf()", path, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return remove_tree(directory, name.c_str(), path, level + 1, error);
    }
    return FileRemoveAt(directory, name.c_str()) == 0 ? 0 : file_error(error, "FileRemove()", path, errno);
}

int remove_tree(int parent, const char* name, const std::string& path, int level, qx7_error* error) {
    if (level > deepest_level) {
        errno = ELOOP;
        return file_error(error, "DirOpen()", path, errno);
    }
    qx_descriptor directory(open_directory(parent, name));
    std::vector<std::string> names;
    if (!directory.valid() || read_names(directory.get(), &names) != 0) {
        return file_error(error, "DirOpen()", path, errno);
    }
    for (const std::string& entry : names) {
        if (remove_entry(directory.get(), entry, path + "/" + entry, level, error) != 0) {
            return -1;
        }
    }
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 ? 0 : file_error(error, "rmdir()", path, errno);
}

std::string without_trailing_slash(const char* path) {
    std::string text(path);
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

}  // namespace

int create_Dir(const char* path, qx7_error* error) {
    qx_error_clear(error);
    return for_each_prefix(path, [&](const std::string& prefix) {
        if (mkdir(prefix.c_str(), 0755) == 0 || errno == EEXIST) {
            return 0;
        }
        return prefix_error(error, prefix, errno);
    });
}

int create_Dir_Mode(const char* path, mode_t mode, qx7_error* error) {
    qx_error_clear(error);
    return for_each_prefix(path, [&](const std::string& prefix) {
        effUser_guard guard;
        if (fileExists(prefix.c_str(), nullptr) == 1) {
            return 0;
        }
        if (mkdir(prefix.c_str(), mode) != 0) {
            return prefix_error(error, prefix, errno);
        }
        // By descriptor, so that a directory that was put in its place meanwhile is at least no link.
        qx_descriptor made(open_directory(AT_FDCWD, prefix.c_str()));
        if (!made.valid() || fchmod(made.get(), mode) != 0) {
            return prefix_error(error, prefix, errno);
        }
        return 0;
    });
}

DIR* DirOpen(const char* path) {
    return opendir(path);
}

const char* DirReadNext(DIR* directory) {
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(directory);
        if (entry == nullptr) {
            return nullptr;
        }
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            return entry->d_name;
        }
    }
}

int DirClose(DIR* directory) {
    return closedir(directory);
}

int remove_all(const char* dir, qx7_error* error) {
    qx_error_clear(error);
    const std::string path = without_trailing_slash(dir);
    return remove_tree(AT_FDCWD, path.c_str(), path, 0, error);
}

int remove_allDirfiles(const char* dir, qx7_error* error) {
    qx_error_clear(error);
    const std::string path = without_trailing_slash(dir);
    qx_descriptor directory(open_directory(AT_FDCWD, path.c_str()));
    std::vector<std::string> names;
    if (!directory.valid() || read_names(directory.get(), &names) != 0) {
        return file_error(error, "DirOpen()", path, errno);
    }
    int count = 0;
    for (const std::string& name : names) {
        const std::string file = path + "/" + name;
        struct stat status;
        if (fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return file_error(error, "GetStatBuf()", file, errno);
        }
        if (S_ISDIR(status.st_mode)) {
            return directory_found(error, file);
        }
        if (FileRemoveAt(directory.get(), name.c_str()) != 0) {
            return file_error(error, "FileRemove()", file, errno);
        }
        ++count;
    }
    return count;
}
