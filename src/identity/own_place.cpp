#include "identity/own_place.h"

#include <cerrno>

#include "base/files.h"
#include "base/locks.h"
#include "base/obstacles.h"
#include "base/paths.h"
#include "identity/user_files.h"

int take_place_of_path(const std::string& made, const std::string& path) {
    effUser_guard lock;
    file_way way;
    if (walk_way(path.c_str(), &way) != 0) {
        return -1;
    }
    if (!way.trusted) {
        errno = EEXIST;
        return -1;
    }
    return take_place(way.dir.get(), std::string(path_file_name(made)).c_str(), way.name.c_str(),
                      path.c_str());
}

int create_in_place(const std::string& path, mode_t mode) {
    constexpr uid_t own_uid = static_cast<uid_t>(-1);
    constexpr gid_t own_gid = static_cast<gid_t>(-1);
    const int file = create_new_file(path.c_str(), mode, own_uid, own_gid, nullptr);
    if (file >= 0 || errno != EEXIST) {
        return file;
    }
    const std::string made = std::string(path_folder_name(path)) + "/" + hidden_name();
    qx_descriptor hidden(create_new_file(made.c_str(), mode, own_uid, own_gid, nullptr));
    if (hidden.valid() && take_place_of_path(made, path) != 0) {
        const int failed = errno;
        (void)FileRemove(made.c_str());  // the first failure is the one to tell
        errno = failed;
        return -1;
    }
    return hidden.release();
}
