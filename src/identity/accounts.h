// Accounts and groups of this host. Every lookup runs under the effective-user lock, which it takes itself;
// the calls may be made on any thread. Only what AccountOfUser, GroupNameOfAccount and account_groups found
// is kept: for five seconds at most, and not beyond a change of /etc/passwd or /etc/group.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/memory.h"

inline constexpr size_t account_name_limit = 32;  // a longer user name is an unknown user
inline constexpr int account_group_limit = 1024;  // gids of one user that the agent carries
inline constexpr gid_t gid_list_end = static_cast<gid_t>(-1);

// A private copy of a passwd record. Longer values are cut without error; the _x byte behind a field is the
// terminator of a value at full length. The password hash wipes itself; who does not need it calls
// pw_passwd.clear().
struct my_passwd_unlimited {
    uid_t pw_uid = 0;
    gid_t pw_gid = 0;
    char pw_name[128] = {};
    char pw_name_x = 0;
    char pw_gecos[128] = {};
    char pw_gecos_x = 0;
    qx_secret_text pw_passwd;
    char pw_dir[512] = {};
    char pw_dir_x = 0;
    char pw_shell[64] = {};
    char pw_shell_x = 0;
};

// The record of a user. True and the record; false with `error` filled: errno ENOENT for an unknown user
// (2001007), 2000102 where the lookup is not permitted, 2001007 for other failures with their errno. `error`
// may be null.
bool GetPwdNameStruct(const char* name, my_passwd_unlimited* record, qx7_error* error);
// The same without the password's hash, kept for some seconds: jobs of one user come many at once.
bool AccountOfUser(const char* name, my_passwd_unlimited* record, qx7_error* error);
// The same by uid; false with `text` "getpwuid() - <reason>" and errno. `text` may be null.
bool GetPwdIdEntry(uid_t uid, my_passwd_unlimited* record, std::string* text);

struct group_entry {
    gid_t gr_gid = 0;
    std::string gr_name;
    std::vector<std::string> gr_mem;
};
// False with `text` "getgrgid() - <reason>" and errno. `text` may be null.
bool GetGroupIdEntry(gid_t gid, group_entry* entry, std::string* text);

// Name of a group, kept like the accounts; empty for an unknown one.
std::string GroupNameOfAccount(gid_t gid);

// Is the user in the group, by primary gid or by member list.
bool GetUserNamesGid(const char* name, gid_t gid);
// uids of the group's listed members, at most `capacity`; their number. Members without an account don't
// count.
int GetGroupIds(gid_t gid, uid_t* list, int capacity);
// Name of the effective user. 0, or -1 with `error` filled and an empty name. A name that does not fit is
// cut.
int getOwnUserName(char* buffer, size_t length, qx7_error* error);

// All gids of the user, the primary one first, with -1 (gid_list_end) behind the last. Result: their number
// without the -1. Unknown user or group: 0, a list of the -1 alone, and `text` (may be null) tells which.
int GetGroupIdsForUser(const char* name, std::vector<gid_t>* list, std::string* text);
// The same into a list of `capacity` entries, the -1 included; a list too short gives an empty result.
int GetGroupIdsForUserTh(const char* name, gid_t* list, int capacity, std::string* text);
// The same for a record that is at hand, without looking the user up once more; kept for some seconds.
int account_groups(const char* name, gid_t primary, std::vector<gid_t>* list);

// Fills 2001007 "<user>|" or 2000102 "<function>(<user>)|<errno> - <reason>". Both return -1.
int FillMessageOnPasswordError(qx7_error* error, int error_number, const char* user);
int FillMessageOnPermissionError(qx7_error* error, int error_number, const char* function, const char* user);
