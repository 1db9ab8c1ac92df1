#include "identity/accounts.h"

#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>

#include "base/error_text.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "base/time.h"

namespace {

constexpr size_t lookup_buffer_start = 4096;
constexpr size_t lookup_buffer_limit = 16U << 20;

// Calls one of the reentrant lookups with a buffer that grows until the entry fits. `call` returns the
// lookup's errno. 0 and the entry in place, ENOENT for none, otherwise the failure.
template <class Call>
int lookup(std::vector<char>* buffer, Call call) {
    buffer->resize(lookup_buffer_start);
    for (;;) {
        const int result = call(buffer->data(), buffer->size());
        if (result == EINTR) {
            continue;
        }
        if (result == ERANGE && buffer->size() < lookup_buffer_limit) {
            buffer->resize(buffer->size() * 4);
            continue;
        }
        // Some sources say "no such process" or "bad descriptor" for an entry that they do not have.
        return result == ESRCH || result == EBADF ? ENOENT : result;
    }
}

struct passwd_lookup {
    std::vector<char> buffer;
    passwd record = {};

    // The hash lies in the buffer.
    ~passwd_lookup() { qx_wipe(buffer.data(), buffer.size()); }
    int by_name(const char* name) {
        passwd* found = nullptr;
        const int result = lookup(
            &buffer, [&](char* area, size_t size) { return getpwnam_r(name, &record, area, size, &found); });
        return result == 0 && found == nullptr ? ENOENT : result;
    }
    int by_uid(uid_t uid) {
        passwd* found = nullptr;
        const int result = lookup(
            &buffer, [&](char* area, size_t size) { return getpwuid_r(uid, &record, area, size, &found); });
        return result == 0 && found == nullptr ? ENOENT : result;
    }
};

struct group_lookup {
    std::vector<char> buffer;
    group record = {};

    int by_gid(gid_t gid) {
        group* found = nullptr;
        const int result = lookup(
            &buffer, [&](char* area, size_t size) { return getgrgid_r(gid, &record, area, size, &found); });
        return result == 0 && found == nullptr ? ENOENT : result;
    }
};

bool name_is_possible(const char* name) {
    return name != nullptr && *name != 0 && strlen(name) <= account_name_limit;
}

int find_user(const char* name, passwd_lookup* found) {
    return name_is_possible(name) ? found->by_name(name) : ENOENT;
}

// The field may be filled to its last byte: the terminator is the byte behind it.
template <size_t size>
void copy_value(char (&field)[size], char* terminator, const char* value) {
    const size_t length = value == nullptr ? 0 : strnlen(value, size);
    memset(field, 0, size);
    if (length > 0) {
        memcpy(field, value, length);
    }
    *terminator = 0;
}

bool copy_record(const passwd& from, my_passwd_unlimited* to) {
    to->pw_uid = from.pw_uid;
    to->pw_gid = from.pw_gid;
    copy_value(to->pw_name, &to->pw_name_x, from.pw_name);
    copy_value(to->pw_gecos, &to->pw_gecos_x, from.pw_gecos);
    copy_value(to->pw_dir, &to->pw_dir_x, from.pw_dir);
    copy_value(to->pw_shell, &to->pw_shell_x, from.pw_shell);
    return to->pw_passwd.assign(from.pw_passwd == nullptr ? "" : from.pw_passwd);
}

// ---- What was found lately, under the effective-user lock

constexpr int64_t kept_ms = 5000;
constexpr size_t kept_limit = 200;

// A database that was changed drops everything that was kept of it; other sources count after five seconds.
struct database_state {
    const char* file;
    struct stat seen;

    bool changed() {
        struct stat now = {};
        // Without the file all accounts come from elsewhere.
        (void)stat(file, &now);
        const bool same = now.st_ino == seen.st_ino && now.st_size == seen.st_size &&
                          now.st_mtim.tv_sec == seen.st_mtim.tv_sec &&
                          now.st_mtim.tv_nsec == seen.st_mtim.tv_nsec;
        seen = now;
        return !same;
    }
};

template <class Key, class Value>
struct kept_entries {
    struct entry {
        Value value;
        int64_t found_ms;
    };
    database_state database;
    std::map<Key, entry> entries;

    const Value* find(const Key& key) {
        if (database.changed()) {
            entries.clear();
        }
        const auto found = entries.find(key);
        return found == entries.end() || alarm_now_ms() - found->second.found_ms >= kept_ms
                   ? nullptr
                   : &found->second.value;
    }
    void keep(const Key& key, const Value& value) {
        if (entries.size() >= kept_limit) {
            entries.clear();
        }
        entries.insert_or_assign(key, entry{value, alarm_now_ms()});
    }
};

struct kept_account {
    uid_t uid;
    gid_t gid;
    std::string name, gecos, dir, shell;
};
kept_entries<std::string, kept_account> kept_accounts{{"/etc/passwd", {}}, {}};
kept_entries<gid_t, std::string> kept_group_names{{"/etc/group", {}}, {}};
kept_entries<std::pair<std::string, gid_t>, std::vector<gid_t>> kept_group_lists{{"/etc/group", {}}, {}};

void copy_kept(const kept_account& from, my_passwd_unlimited* to) {
    to->pw_uid = from.uid;
    to->pw_gid = from.gid;
    copy_value(to->pw_name, &to->pw_name_x, from.name.c_str());
    copy_value(to->pw_gecos, &to->pw_gecos_x, from.gecos.c_str());
    copy_value(to->pw_dir, &to->pw_dir_x, from.dir.c_str());
    copy_value(to->pw_shell, &to->pw_shell_x, from.shell.c_str());
    to->pw_passwd.clear();
}

void set_text(std::string* text, const std::string& value) {
    if (text != nullptr) {
        *text = value;
    }
}

std::string not_found_text(int error_number, const std::string& call) {
    const std::string reason = error_number == ENOENT ? "user not found" : error_text(error_number);
    return "'" + reason + "' in " + call + " call";
}

}  // namespace

int FillMessageOnPasswordError(qx7_error* error, int error_number, const char* user) {
    return qx_error_set(error, -1, error_number, number_user_unknown, "%s|", user);
}

int FillMessageOnPermissionError(qx7_error* error, int error_number, const char* function, const char* user) {
    return qx_error_set(error, -1, error_number, number_call_failed, "%s(%s)|%i - %s", function, user,
                        error_number, error_text(error_number).c_str());
}

bool GetPwdNameStruct(const char* name, my_passwd_unlimited* record, qx7_error* error) {
    effUser_guard lock;
    qx_error_clear(error);
    passwd_lookup found;
    int result = find_user(name, &found);
    if (result == 0 && !copy_record(found.record, record)) {
        result = ENOMEM;
    }
    if (result == 0) {
        return true;
    }
    const char* shown = name == nullptr ? "" : name;
    if (result == EPERM) {
        FillMessageOnPermissionError(error, result, "getpwnam", shown);
    } else {
        FillMessageOnPasswordError(error, result, shown);
    }
    errno = result;
    return false;
}

bool AccountOfUser(const char* name, my_passwd_unlimited* record, qx7_error* error) {
    effUser_guard lock;
    const std::string key = name == nullptr ? "" : name;
    if (const kept_account* kept = kept_accounts.find(key)) {
        qx_error_clear(error);
        copy_kept(*kept, record);
        return true;
    }
    if (!GetPwdNameStruct(name, record, error)) {
        return false;
    }
    record->pw_passwd.clear();
    kept_accounts.keep(key, {record->pw_uid, record->pw_gid, record->pw_name, record->pw_gecos,
                             record->pw_dir, record->pw_shell});
    return true;
}

std::string GroupNameOfAccount(gid_t gid) {
    effUser_guard lock;
    if (const std::string* kept = kept_group_names.find(gid)) {
        return *kept;
    }
    group_entry entry;
    if (!GetGroupIdEntry(gid, &entry, nullptr)) {
        return {};
    }
    kept_group_names.keep(gid, entry.gr_name);
    return entry.gr_name;
}

bool GetPwdIdEntry(uid_t uid, my_passwd_unlimited* record, std::string* text) {
    effUser_guard lock;
    passwd_lookup found;
    int result = found.by_uid(uid);
    if (result == 0 && !copy_record(found.record, record)) {
        result = ENOMEM;
    }
    if (result != 0) {
        set_text(text, "getpwuid() - " + error_text(result));
        errno = result;
    }
    return result == 0;
}

bool GetGroupIdEntry(gid_t gid, group_entry* entry, std::string* text) {
    effUser_guard lock;
    group_lookup found;
    const int result = found.by_gid(gid);
    if (result != 0) {
        set_text(text, "getgrgid() - " + error_text(result));
        errno = result;
        return false;
    }
    entry->gr_gid = found.record.gr_gid;
    entry->gr_name = found.record.gr_name;
    entry->gr_mem.clear();
    for (char** member = found.record.gr_mem; member != nullptr && *member != nullptr; ++member) {
        entry->gr_mem.emplace_back(*member);
    }
    return true;
}

bool GetUserNamesGid(const char* name, gid_t gid) {
    effUser_guard lock;
    passwd_lookup user;
    if (find_user(name, &user) == 0 && user.record.pw_gid == gid) {
        return true;
    }
    group_entry entry;
    if (name == nullptr || !GetGroupIdEntry(gid, &entry, nullptr)) {
        return false;
    }
    for (const std::string& member : entry.gr_mem) {
        if (member == name) {
            return true;
        }
    }
    return false;
}

int GetGroupIds(gid_t gid, uid_t* list, int capacity) {
    effUser_guard lock;
    group_entry entry;
    if (!GetGroupIdEntry(gid, &entry, nullptr)) {
        return 0;
    }
    int count = 0;
    for (const std::string& member : entry.gr_mem) {
        if (count >= capacity) {
            break;
        }
        passwd_lookup user;
        if (find_user(member.c_str(), &user) == 0) {
            list[count++] = user.record.pw_uid;
        }
    }
    return count;
}

int getOwnUserName(char* buffer, size_t length, qx7_error* error) {
    effUser_guard lock;
    qx_error_clear(error);
    if (length > 0) {
        *buffer = 0;
    }
    passwd_lookup found;
    const uid_t uid = geteuid();
    const int result = found.by_uid(uid);
    if (result != 0) {
        const std::string user = std::to_string(uid);
        errno = result;
        return result == EPERM ? FillMessageOnPermissionError(error, result, "getpwuid", user.c_str())
                               : FillMessageOnPasswordError(error, result, user.c_str());
    }
    copy_text(buffer, length, found.record.pw_name);
    return 0;
}

int account_groups(const char* name, gid_t primary, std::vector<gid_t>* list) {
    effUser_guard lock;
    const std::pair key(std::string(name), primary);
    if (const std::vector<gid_t>* kept = kept_group_lists.find(key)) {
        *list = *kept;
        return static_cast<int>(list->size()) - 1;
    }
    int room = account_group_limit;
    for (;;) {
        list->resize(static_cast<size_t>(room));
        int count = room;
        if (getgrouplist(name, primary, list->data(), &count) >= 0) {
            list->resize(static_cast<size_t>(count));
            break;
        }
        // The group database may have grown meanwhile: never go round with the same size.
        room = count > room ? count : room * 2;
    }
    list->push_back(gid_list_end);
    kept_group_lists.keep(key, *list);
    return static_cast<int>(list->size()) - 1;
}

int GetGroupIdsForUser(const char* name, std::vector<gid_t>* list, std::string* text) {
    effUser_guard lock;
    list->assign(1, gid_list_end);
    passwd_lookup user;
    int result = find_user(name, &user);
    if (result != 0) {
        set_text(text, not_found_text(result, "getpwnam(" + std::string(name == nullptr ? "" : name) + ")"));
        errno = result;
        return 0;
    }
    group_lookup primary;
    result = primary.by_gid(user.record.pw_gid);
    if (result != 0) {
        set_text(text, not_found_text(result, "getgrgid(" + std::to_string(user.record.pw_gid) + ")"));
        errno = result;
        return 0;
    }
    return account_groups(name, user.record.pw_gid, list);
}

int GetGroupIdsForUserTh(const char* name, gid_t* list, int capacity, std::string* text) {
    if (capacity < 1) {
        errno = EINVAL;
        return 0;
    }
    list[0] = gid_list_end;
    std::vector<gid_t> all;
    const int count = GetGroupIdsForUser(name, &all, text);
    if (count == 0) {
        return 0;
    }
    if (count >= capacity) {
        set_text(text, "the user has " + std::to_string(count) + " groups, more than the agent carries");
        errno = ERANGE;
        return 0;
    }
    memcpy(list, all.data(), all.size() * sizeof(gid_t));
    return count;
}
