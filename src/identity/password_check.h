// Is the password of a message that of the user: by shadow, by passwd, or by PAM.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "identity/pam.h"

enum password_result : int { PASSWORD_ACCEPTED = 1, PASSWORD_REFUSED = 0, PASSWORD_ERROR = -1 };

// `mode` 0: no check at all. `runNumber` is the number under which the password was enciphered. `field`: 10
// digits with the length, then that many bytes; empty counts as no password. `pamHandle`, if given, receives
// an open handle or null; the caller ends it. Result password_result; `text` tells why, errno is EPERM where
// the agent has not the right to check (it was not started as root) and ENOENT for an unknown user. Any
// thread; takes the effective-user lock.
int PasswordCheck(int mode, int runNumber, std::span<const unsigned char> field, const char* userName,
                  std::string* text, pam_handle_t** pamHandle);

// The two databases, with the plain password. With GLOBAL/hardened an empty password is right only where the
// stored hash is the empty text; without it also where the passwd database holds a short one.
int PwdCheckGetSpNam(const char* user, const char* password, std::string* text);
int PwdCheckGetPwNam(const char* user, const char* password, std::string* text);

// Whether the stored hash of the user, in shadow if there is an entry, else in passwd, is the empty text.
bool account_has_empty_password(const char* user);

// One comparison against a stored hash. `compareWhole`: the whole strings, not only the stored length. False
// also for a hash that the platform cannot work with.
bool password_matches(const char* password, const char* hash, bool compareWhole);
