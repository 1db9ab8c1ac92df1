// Would the system let a user do this to a file: judged by owner, group and mode, without becoming that user.
// For a quick answer with a reason; the operation itself still runs under the user's identity.
#pragma once

#include <string>

#include "identity/accounts.h"

enum file_access_mode : char { FILE_ACCESS_READ = 'R', FILE_ACCESS_WRITE = 'W', FILE_ACCESS_REMOVE = 'D' };

// 1 allowed, 0 refused (errno EACCES), -1 the file cannot be judged. `text` tells why; it may be null.
int CheckFileAccess(const char* file, const char* user, char mode, std::string* text);
int CheckFileAccess_Pw(const char* file, const char* user, char mode, const my_passwd_unlimited* passwd,
                       std::string* text);
int ReadFileAccess(const char* file, const my_passwd_unlimited* passwd, std::string* text);
int WriteFileAccess(const char* file, const my_passwd_unlimited* passwd, std::string* text);
// Judges the folder, and with the sticky bit the file's owner.
int RemoveFileAccess(const char* file, const my_passwd_unlimited* passwd, std::string* text);

// For file events and transfers: 1 or 0. Without `authority`, for root and under an agent that is not root
// everything is allowed here, the system judges later. Without a record it is looked up; a miss is logged and
// refused.
int ReadFileAuthority(const char* user, const char* file, int authority, const my_passwd_unlimited* passwd,
                      std::string* text);
int uicFileAuthority(const char* user, const char* file, char mode, int authority,
                     const my_passwd_unlimited* passwd, std::string* text);
