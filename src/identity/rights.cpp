#include "identity/rights.h"

#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "base/context.h"
#include "base/error_text.h"
#include "base/files.h"
#include "log/log.h"

namespace {

constexpr int group_member_limit = 1024;

// What one class of users (owner, group, world) may do, by the letters of the catalogue.
struct class_rights {
    const char* name;
    unsigned char read, write, remove;
};

class_rights owner_rights(const FILE_CAT& file) {
    return {"owner", file.fc_usr_read, file.fc_usr_write, file.fc_usr_delete};
}
class_rights group_rights(const FILE_CAT& file) {
    return {"group", file.fc_grp_read, file.fc_grp_write, file.fc_grp_delete};
}
class_rights world_rights(const FILE_CAT& file) {
    return {"world", file.fc_all_read, file.fc_all_write, file.fc_all_delete};
}

void set_text(std::string* text, const std::string& value) {
    if (text != nullptr) {
        *text = value;
    }
}

int refuse(std::string* text, const std::string& reason) {
    set_text(text, reason);
    errno = EACCES;
    return 0;
}

// The catalogue is large: it does not belong on the stack of a worker thread.
std::unique_ptr<FILE_CAT> catalogue_of(const char* file, const my_passwd_unlimited* passwd) {
    auto catalogue = std::make_unique<FILE_CAT>();
    GetFileCatalog(file, 0, CATALOGUE_ALL, passwd == nullptr ? nullptr : passwd->pw_dir, catalogue.get());
    return catalogue;
}

// Only the first class that the user belongs to counts, as in the kernel.
class_rights rights_of_user(const FILE_CAT& file, const my_passwd_unlimited& passwd) {
    if (file.fc_uid == passwd.pw_uid) {
        return owner_rights(file);
    }
    if (GetUserNamesGid(passwd.pw_name, file.fc_gid)) {
        return group_rights(file);
    }
    return world_rights(file);
}

int read_or_write(const char* file, const my_passwd_unlimited* passwd, std::string* text, bool write) {
    const auto catalogue = catalogue_of(file, passwd);
    if (catalogue->fc_errno != 0) {
        set_text(text, "GetFileCatalog(" + std::string(file) + ")");
        errno = catalogue->fc_errno;
        return -1;
    }
    const class_rights rights = rights_of_user(*catalogue, *passwd);
    if (write ? rights.write == 'w' : rights.read == 'r') {
        return 1;
    }
    return refuse(text, std::string(write ? "write" : "read") + " (" + rights.name + ") permission denied '" +
                            file + "'");
}

std::string folder_of(const char* file) {
    const char* last = strrchr(file, '/');
    if (last == nullptr || last == file) {
        return "/";
    }
    return std::string(file, static_cast<size_t>(last - file));
}

int catalogue_failure(const char* what, const std::string& name, const FILE_CAT& catalogue,
                      std::string* text) {
    set_text(text,
             std::string(what) + ", GetFileCatalog(" + name + "), error '" + catalogue.fc_rettext + "'");
    errno = catalogue.fc_errno;
    return -1;
}

bool is_sticky(const FILE_CAT& folder) {
    return (folder.fc_statmode & S_ISVTX) != 0;
}

}  // namespace

int ReadFileAccess(const char* file, const my_passwd_unlimited* passwd, std::string* text) {
    return read_or_write(file, passwd, text, false);
}

int WriteFileAccess(const char* file, const my_passwd_unlimited* passwd, std::string* text) {
    return read_or_write(file, passwd, text, true);
}

int RemoveFileAccess(const char* file, const my_passwd_unlimited* passwd, std::string* text) {
    const std::string folder_name = folder_of(file);
    const auto folder = catalogue_of(folder_name.c_str(), passwd);
    if (folder->fc_errno != 0) {
        return catalogue_failure("dir", folder_name, *folder, text);
    }
    if (folder->fc_uid == passwd->pw_uid) {
        return owner_rights(*folder).remove == 'd'
                   ? 1
                   : refuse(text, "delete (owner) permission denied '" + std::string(file) + "'");
    }
    const auto entry = catalogue_of(file, passwd);
    if (entry->fc_errno != 0) {
        return catalogue_failure("file", file, *entry, text);
    }
    const bool foreign = is_sticky(*folder) && entry->fc_uid != passwd->pw_uid;
    if (GetUserNamesGid(passwd->pw_name, folder->fc_gid)) {
        return group_rights(*folder).remove == 'd' && !foreign
                   ? 1
                   : refuse(text, "delete (group) permission denied '" + std::string(file) + "'");
    }
    return world_rights(*folder).remove == 'd' && !foreign
               ? 1
               : refuse(text, "remove permission denied '" + std::string(file) + "'");
}

int CheckFileAccess_Pw(const char* file, const char* user, char mode, const my_passwd_unlimited* passwd,
                       std::string* text) {
    (void)user;
    const uid_t effective = geteuid();
    if (effective == 0 && passwd->pw_uid == 0) {
        set_text(text, "effectiv userid and define userid are equal (0)");
        return 1;
    }
    if (effective == passwd->pw_uid) {
        set_text(text, "agent userid is equal with define userid, decision at function-call");
        return 1;
    }
    switch (mode) {
        case FILE_ACCESS_READ:
            return ReadFileAccess(file, passwd, text);
        case FILE_ACCESS_WRITE:
            return WriteFileAccess(file, passwd, text);
        case FILE_ACCESS_REMOVE:
            return RemoveFileAccess(file, passwd, text);
        default:
            errno = EINVAL;
            return 0;
    }
}

int CheckFileAccess(const char* file, const char* user, char mode, std::string* text) {
    my_passwd_unlimited passwd;
    if (!GetPwdNameStruct(user, &passwd, nullptr)) {
        const int error_number = errno;
        set_text(text, "getpwnam(" + std::string(user) + ") - " + error_text(error_number));
        errno = error_number;
        return 0;
    }
    passwd.pw_passwd.clear();
    return CheckFileAccess_Pw(file, user, mode, &passwd, text);
}

int uicFileAuthority(const char* user, const char* file, char mode, int authority,
                     const my_passwd_unlimited* passwd, std::string* text) {
    if (user == nullptr || *user == 0) {
        return 1;
    }
    const auto catalogue = catalogue_of(file, passwd);
    if (catalogue->fc_errno != 0) {
        set_text(text, "fstat() - " + error_text(catalogue->fc_errno));
        errno = catalogue->fc_errno;
        return 0;
    }
    const uid_t agent = GlbPcx == nullptr ? geteuid() : GlbPcx->pcx_run_euid;
    if (agent != 0 || passwd->pw_uid == 0 || authority == 0) {
        return 1;
    }
    const auto allows = [mode](const class_rights& rights) {
        return mode == FILE_ACCESS_READ ? rights.read == 'r'
                                        : mode == FILE_ACCESS_WRITE && rights.write == 'w';
    };
    if (catalogue->fc_uid == passwd->pw_uid && allows(owner_rights(*catalogue))) {
        return 1;
    }
    uid_t members[group_member_limit];
    const int count = GetGroupIds(catalogue->fc_gid, members, group_member_limit);
    bool member = passwd->pw_gid == catalogue->fc_gid;
    for (int i = 0; i < count && !member; ++i) {
        member = members[i] == passwd->pw_uid;
    }
    if (member && allows(group_rights(*catalogue))) {
        return 1;
    }
    if (allows(world_rights(*catalogue))) {
        return 1;
    }
    return refuse(text, error_text(EACCES));
}

int ReadFileAuthority(const char* user, const char* file, int authority, const my_passwd_unlimited* passwd,
                      std::string* text) {
    if (passwd != nullptr || user == nullptr || *user == 0) {
        return uicFileAuthority(user, file, FILE_ACCESS_READ, authority, passwd, text);
    }
    my_passwd_unlimited found;
    qx7_error error;
    if (!GetPwdNameStruct(user, &found, &error)) {
        const int error_number = errno;
        __log_error(error);
        set_text(text, "getpwnam(" + std::string(user) + ") - " + error_text(error_number));
        errno = error_number;
        return 0;
    }
    found.pw_passwd.clear();
    return uicFileAuthority(user, file, FILE_ACCESS_READ, authority, &found, text);
}
