#include "identity/password_check.h"

#include <crypt.h>
#include <pwd.h>
#include <shadow.h>
#include <string.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <vector>

#include "base/context.h"
#include "base/error_text.h"
#include "base/locks.h"
#include "base/memory.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "security/string_cipher.h"

namespace {

constexpr size_t field_head = 10;  // decimal digits of the length
constexpr size_t cipher_block = 16;
constexpr size_t short_hash = 2;           // what is no longer can't be a hash
constexpr int64_t password_limit = 65536;  // enciphered bytes; nobody's password is longer

constexpr char text_correct[] = "user password correct!";
constexpr char text_incorrect[] = "user password incorrect!";
constexpr char text_attention[] = "Attention! user password incorrect!";
constexpr char text_no_hash[] = "user password not found!";

int answer(std::string* text, std::string_view reason, int result) {
    if (text != nullptr) {
        *text = reason;
    }
    return result;
}

bool hardened() {
    return GlbPcx != nullptr && GlbPcx->pcx_hardened != 0;
}

// The shadow database is locked where that is possible. A read-only /etc or another holder is no reason to
// refuse.
struct shadow_lock {
    bool held = lckpwdf() == 0;
    shadow_lock() = default;
    shadow_lock(const shadow_lock&) = delete;
    shadow_lock& operator=(const shadow_lock&) = delete;
    ~shadow_lock() {
        if (held) {
            ulckpwdf();
        }
    }
};

enum class stored { found, missing };

// Days of a shadow entry, since 1970; -1 where there is none.
struct shadow_days {
    long expires = -1;   // the account
    long changed = -1;   // the password
    long longest = -1;   // that a password is valid
    long inactive = -1;  // that it is taken after that
};

constexpr char text_expired[] = "user account is expired!";
constexpr char text_inactive[] = "user password is expired and inactive!";

// Why an account may not be used on `today` whatever its password, or null.
const char* out_of_use(const shadow_days& days, long today) {
    if (days.expires >= 0 && today >= days.expires) {
        return text_expired;
    }
    const bool limited = days.changed >= 0 && days.longest >= 0 && days.inactive >= 0;
    if (limited && today - days.changed - days.longest > days.inactive) {
        return text_inactive;
    }
    return nullptr;
}

// The hash of the shadow entry. missing: errno tells, ENOENT for no entry.
stored shadow_hash(const char* user, qx_secret_text* hash, shadow_days* days = nullptr) {
    const shadow_lock lock;
    std::vector<char> buffer(4096);
    spwd record = {};
    spwd* entry = nullptr;
    int result;
    while ((result = getspnam_r(user, &record, buffer.data(), buffer.size(), &entry)) == ERANGE &&
           buffer.size() < (1U << 20)) {
        qx_wipe(buffer.data(), buffer.size());
        buffer.resize(buffer.size() * 4);
    }
    const bool found = result == 0 && entry != nullptr;
    const bool copied = found && hash->assign(record.sp_pwdp == nullptr ? "" : record.sp_pwdp);
    if (found && days != nullptr) {
        *days = {record.sp_expire, record.sp_lstchg, record.sp_max, record.sp_inact};
    }
    qx_wipe(buffer.data(), buffer.size());
    if (!found) {
        errno = result == 0 ? ENOENT : result;
        return stored::missing;
    }
    if (!copied) {
        errno = ENOMEM;
        return stored::missing;
    }
    return stored::found;
}

// Deciphers the field into `password`. False for a field whose form is wrong.
bool decipher_field(std::span<const unsigned char> field, int runNumber, qx_secret_text* password) {
    if (field.empty()) {
        return password->assign("");
    }
    int64_t length = 0;
    const std::string_view head(reinterpret_cast<const char*>(field.data()),
                                field.size() < field_head ? field.size() : field_head);
    if (head.size() < field_head || !parse_number(head, 0, password_limit, &length)) {
        return false;
    }
    const size_t count = static_cast<size_t>(length);
    if (count % cipher_block != 0 || count > field.size() - field_head) {
        return false;
    }
    if (count == 0) {
        return password->assign("");
    }
    if (!password->resize(count + 1)) {
        return false;
    }
    PwdDeChiffreTh(runNumber, field.data() + field_head, count, password->data(), count + 1);
    password->data()[count] = 0;
    password->trim_to_terminator();
    return true;
}

bool user_exists(const char* user) {
    my_passwd_unlimited record;
    return GetPwdNameStruct(user, &record, nullptr);
}

// What a login would refuse after the password, the agent does under `hardened` alone.
int check_in_use(const char* user, std::string* text) {
    constexpr time_t day = 86400;
    qx_secret_text hash;
    shadow_days days;
    if (!hardened() || shadow_hash(user, &hash, &days) == stored::missing) {
        return PASSWORD_ACCEPTED;
    }
    const char* reason = out_of_use(days, static_cast<long>(time(nullptr) / day));
    return reason == nullptr ? PASSWORD_ACCEPTED : answer(text, reason, PASSWORD_REFUSED);
}

int check_local(const char* user, const char* password, std::string* text) {
    int result = PwdCheckGetSpNam(user, password, text);
    if (result == PASSWORD_ERROR) {
        result = PwdCheckGetPwNam(user, password, text);
    }
    return result == PASSWORD_ACCEPTED ? check_in_use(user, text) : result;
}

}  // namespace

bool password_matches(const char* password, const char* hash, bool compareWhole) {
    const auto data = std::make_unique<crypt_data>();
    const char* made = crypt_r(password, hash, data.get());
    bool equal = false;
    if (made != nullptr && *made != '*') {
        const size_t stored_length = strlen(hash);
        const size_t made_length = strlen(made);
        equal = made_length >= stored_length && (!compareWhole || made_length == stored_length) &&
                qx_equal_constant_time(made, hash, stored_length);
    }
    qx_wipe(data.get(), sizeof *data);
    return equal;
}

int PwdCheckGetSpNam(const char* user, const char* password, std::string* text) {
    qx_secret_text hash;
    if (shadow_hash(user, &hash) == stored::missing) {
        const int error_number = errno;
        answer(text, "error '" + error_text(error_number) + "' in getspnam('" + std::string(user) + "')-call",
               PASSWORD_ERROR);
        errno = error_number;
        return PASSWORD_ERROR;
    }
    const bool no_password = *password == 0;
    if (hardened() && no_password) {
        return hash.empty() ? answer(text, text_correct, PASSWORD_ACCEPTED)
                            : answer(text, hash.size() <= short_hash ? text_no_hash : text_incorrect,
                                     PASSWORD_REFUSED);
    }
    if (hash.size() <= short_hash) {
        return answer(text, text_no_hash, PASSWORD_ERROR);
    }
    if (no_password) {
        return answer(text, text_incorrect, PASSWORD_REFUSED);
    }
    return password_matches(password, hash.c_str(), false) ? answer(text, text_correct, PASSWORD_ACCEPTED)
                                                           : answer(text, text_attention, PASSWORD_REFUSED);
}

int PwdCheckGetPwNam(const char* user, const char* password, std::string* text) {
    my_passwd_unlimited record;
    if (!GetPwdNameStruct(user, &record, nullptr)) {
        const int error_number = errno;
        answer(text, "error '" + error_text(error_number) + "' in getpwnam()-call", PASSWORD_ERROR);
        errno = error_number;
        return PASSWORD_ERROR;
    }
    const qx_secret_text& hash = record.pw_passwd;
    const bool no_password = *password == 0;
    if (hash.size() <= short_hash) {
        const bool right = no_password && (!hardened() || hash.empty());
        return right ? answer(text, text_correct, PASSWORD_ACCEPTED)
                     : answer(text, text_incorrect, PASSWORD_REFUSED);
    }
    if (no_password) {
        return answer(text, text_incorrect, PASSWORD_REFUSED);
    }
    return password_matches(password, hash.c_str(), true) ? answer(text, text_correct, PASSWORD_ACCEPTED)
                                                          : answer(text, text_attention, PASSWORD_REFUSED);
}

bool account_has_empty_password(const char* user) {
    effUser_guard lock;
    qx_secret_text hash;
    if (shadow_hash(user, &hash) == stored::found) {
        return hash.empty();
    }
    my_passwd_unlimited record;
    return errno == ENOENT && GetPwdNameStruct(user, &record, nullptr) && record.pw_passwd.empty();
}

int PasswordCheck(int mode, int runNumber, std::span<const unsigned char> field, const char* userName,
                  std::string* text, pam_handle_t** pamHandle) {
    if (pamHandle != nullptr) {
        *pamHandle = nullptr;
    }
    if (mode == 0 || userName == nullptr || *userName == 0) {
        return PASSWORD_ACCEPTED;
    }
    const EX_PCX* pcx = GlbPcx;
    effUser_guard lock;
    if (!user_exists(userName)) {
        // The user's name stands first and the reason second: operators search their logs for this order.
        answer(text, "error '" + std::string(userName) + "' in getpwnam(" + error_text(errno) + ") call",
               PASSWORD_ERROR);
        errno = ENOENT;
        return PASSWORD_ERROR;
    }
    if (pcx->pcx_strt_euid != 0) {
        answer(text, "operation getpwnam(" + std::string(userName) + ") is not permitted'", PASSWORD_ERROR);
        errno = EPERM;
        return PASSWORD_ERROR;
    }
    qx_secret_text password;
    if (!decipher_field(field, runNumber, &password)) {
        answer(text, "the password field of the message is damaged", PASSWORD_ERROR);
        errno = EINVAL;
        return PASSWORD_ERROR;
    }
    return pcx->pcx_Auth == AUTH_PAM ? PamPasswordCheck(userName, password.c_str(), text, pamHandle)
                                     : check_local(userName, password.c_str(), text);
}
