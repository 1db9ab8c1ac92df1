#include <gtest/gtest.h>

#include "identity/accounts.h"
#include "identity/password_check.h"
#include "own_context.h"
#include "security/string_cipher.h"

namespace {

std::span<const unsigned char> bytes_of(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

// The published password and salt of SHA-crypt; the hashes are those of `openssl passwd`.
constexpr char sha256_hash[] = "$5$saltstring$5B8vYYiY.CVt1RlTTf8KbXBH3hsxY/GNooZaBBGWEc5";
constexpr char sha512_hash[] =
    "$6$saltstring$svn8UoSVapNtMuq1ukKS4tPQd8iKwSMHWjl/O817G3uBnIFNjnQJuesI68u4OTLiBFdcbYEdFCoEOfaS35inz1";
constexpr char plain[] = "Hello world!";

TEST(PasswordMatches, HashesOfAnotherProgram) {
    for (bool whole : {false, true}) {
        EXPECT_TRUE(password_matches(plain, sha256_hash, whole));
        EXPECT_TRUE(password_matches(plain, sha512_hash, whole));
        EXPECT_FALSE(password_matches("Hello world", sha512_hash, whole));
        EXPECT_FALSE(password_matches("", sha512_hash, whole));
    }
}

TEST(PasswordMatches, HashesThatThePlatformCannotComputeNeverMatch) {
    for (const char* hash : {"*0", "*1", "!locked", "$99$x$y", "x"}) {
        for (const char* password : {"", "*0", "*1", "!locked", "x"}) {
            EXPECT_FALSE(password_matches(password, hash, false)) << hash << " " << password;
        }
    }
}

TEST(PasswordCheckSteps, WithoutACheckTheFieldIsNeverLookedAt) {
    own_context context;
    std::string text;
    const std::string damaged = "not a field";
    EXPECT_EQ(PasswordCheck(0, 1, bytes_of(damaged), "nobody-knows-him", &text, nullptr), PASSWORD_ACCEPTED);
    EXPECT_EQ(PasswordCheck(1, 1, bytes_of(damaged), "", &text, nullptr), PASSWORD_ACCEPTED);
}

TEST(PasswordCheckSteps, UnknownUserThenMissingRightsThenDamagedField) {
    own_context context;
    std::string text;
    pam_handle_t* handle = reinterpret_cast<pam_handle_t*>(1);
    EXPECT_EQ(PasswordCheck(1, 1, {}, "no-such-user", &text, &handle), PASSWORD_ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(text, "error 'no-such-user' in getpwnam(No such file or directory) call");
    EXPECT_EQ(handle, nullptr);

    context.pcx->pcx_strt_euid = 1000;
    EXPECT_EQ(PasswordCheck(1, 1, {}, "daemon", &text, nullptr), PASSWORD_ERROR);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(text, "operation getpwnam(daemon) is not permitted'");

    context.pcx->pcx_strt_euid = 0;
    for (const std::string& field :
         {std::string("00000"), std::string("00000000xx"), std::string("0000000016short"),
          "0000000015" + std::string(15, 'a'), "0099999999" + std::string(32, 'a'),
          "-000000016" + std::string(16, 'a')}) {
        EXPECT_EQ(PasswordCheck(1, 1, bytes_of(field), "daemon", &text, nullptr), PASSWORD_ERROR) << field;
        EXPECT_EQ(errno, EINVAL) << field;
    }
}

TEST(PasswordCheckAsRoot, ShadowHashDecidesUnderTheRunNumberOfTheMessage) {
    if (!runs_as_root()) {
        return;
    }
    own_context context;
    made_user user("qxpw", sha512_hash);
    ASSERT_TRUE(user.made);
    std::string text;
    const auto check = [&](int number, const std::string& field) {
        return PasswordCheck(1, number, bytes_of(field), user.name.c_str(), &text, nullptr);
    };
    EXPECT_EQ(check(4711, build_password_field(4711, plain)), PASSWORD_ACCEPTED);
    EXPECT_EQ(text, "user password correct!");
    EXPECT_EQ(check(4712, build_password_field(4711, plain)), PASSWORD_REFUSED);
    EXPECT_EQ(text, "Attention! user password incorrect!");
    EXPECT_EQ(check(4711, build_password_field(4711, "Hello World!")), PASSWORD_REFUSED);
    EXPECT_EQ(check(4711, build_password_field(4711, "")), PASSWORD_REFUSED);
    EXPECT_EQ(text, "user password incorrect!");
    EXPECT_EQ(check(4711, ""), PASSWORD_REFUSED);
}

// The shadow entries that hold no hash: what an empty and another password give, with and without hardening.
TEST(PasswordCheckAsRoot, EmptyPasswordsAndHardening) {
    if (!runs_as_root()) {
        return;
    }
    struct row {
        const char* stored;
        int empty_open, empty_hardened;
    };
    own_context context;
    for (const row& expected :
         {row{"", PASSWORD_ACCEPTED, PASSWORD_ACCEPTED}, row{"*", PASSWORD_ACCEPTED, PASSWORD_REFUSED},
          row{"!", PASSWORD_ACCEPTED, PASSWORD_REFUSED},
          row{"!locked-hash", PASSWORD_REFUSED, PASSWORD_REFUSED}}) {
        made_user user("qxempty", "!");
        ASSERT_TRUE(user.made);
        ASSERT_EQ(
            system(
                ("usermod -p '" + std::string(expected.stored) + "' " + user.name + " 2>/dev/null").c_str()),
            0);
        std::string text;
        for (int hardened : {0, 1}) {
            context.pcx->pcx_hardened = static_cast<char>(hardened);
            EXPECT_EQ(PasswordCheck(1, 7, {}, user.name.c_str(), &text, nullptr),
                      hardened != 0 ? expected.empty_hardened : expected.empty_open)
                << "'" << expected.stored << "' hardened " << hardened;
            EXPECT_EQ(PasswordCheck(1, 7, bytes_of(build_password_field(7, "guess")), user.name.c_str(),
                                    &text, nullptr),
                      PASSWORD_REFUSED)
                << "'" << expected.stored << "' hardened " << hardened;
        }
        EXPECT_EQ(account_has_empty_password(user.name.c_str()), *expected.stored == 0);
    }
}

TEST(PasswordCheckAsRoot, AnAccountOutOfUseIsRefusedUnderHardened) {
    if (!runs_as_root()) {
        return;
    }
    own_context context;
    made_user user("qxexp", sha512_hash);
    ASSERT_TRUE(user.made);
    const long today = time(nullptr) / 86400;
    const auto ago = [today](long days) { return std::to_string(today - days); };
    const struct {
        std::string options;
        const char* text;  // under hardened
    } rows[] = {
        {"-E -1", "user password correct!"},
        {"-E " + ago(-1), "user password correct!"},
        {"-E " + ago(0), "user account is expired!"},
        {"-E -1 -d " + ago(20) + " -M 10 -I 10", "user password correct!"},
        {"-E -1 -d " + ago(21) + " -M 10 -I 10", "user password is expired and inactive!"},
        {"-E -1 -d " + ago(21) + " -M 10 -I -1", "user password correct!"},
        {"-E -1 -d " + ago(21) + " -M -1 -I 10", "user password correct!"},
    };
    const std::string field = build_password_field(7, plain);
    for (const auto& row : rows) {
        ASSERT_EQ(system(("chage " + row.options + " " + user.name).c_str()), 0) << row.options;
        for (const int hardened : {0, 1}) {
            context.pcx->pcx_hardened = static_cast<char>(hardened);
            std::string text;
            const bool right = hardened == 0 || std::string(row.text).ends_with("correct!");
            EXPECT_EQ(PasswordCheck(1, 7, bytes_of(field), user.name.c_str(), &text, nullptr),
                      right ? PASSWORD_ACCEPTED : PASSWORD_REFUSED)
                << row.options;
            EXPECT_EQ(text, hardened == 0 ? "user password correct!" : row.text) << row.options;
        }
    }
}

TEST(Accounts, OwnUserByNameAndByNumber) {
    own_context context;
    my_passwd_unlimited by_uid, by_name;
    std::string text;
    ASSERT_TRUE(GetPwdIdEntry(geteuid(), &by_uid, &text)) << text;
    qx7_error error;
    ASSERT_TRUE(GetPwdNameStruct(by_uid.pw_name, &by_name, &error));
    EXPECT_EQ(by_name.pw_uid, geteuid());
    EXPECT_STREQ(by_name.pw_dir, by_uid.pw_dir);
    char own[33];
    EXPECT_EQ(getOwnUserName(own, sizeof own, &error), 0);
    EXPECT_STREQ(own, by_uid.pw_name);
    EXPECT_EQ(getOwnUserName(own, 3, &error), 0);
    EXPECT_EQ(std::string(own), std::string(by_uid.pw_name).substr(0, 2));
}

TEST(Accounts, UnknownNamesAreTold) {
    own_context context;
    my_passwd_unlimited record;
    for (const std::string& name :
         {std::string("no-such-user"), std::string(), std::string(33, 'r'), std::string(4000, 'r')}) {
        qx7_error error;
        EXPECT_FALSE(GetPwdNameStruct(name.c_str(), &record, &error));
        EXPECT_EQ(error.qx_msgnr, 2001007);
        EXPECT_EQ(error.qx_errno, ENOENT);
        EXPECT_EQ(std::string(error.qx_msgInsert), (name + "|").substr(0, 1023));
    }
    std::string text;
    EXPECT_FALSE(GetPwdIdEntry(4040404, &record, &text));
    EXPECT_EQ(text, "getpwuid() - No such file or directory");
    group_entry group;
    EXPECT_FALSE(GetGroupIdEntry(4040404, &group, &text));
    EXPECT_EQ(text, "getgrgid() - No such file or directory");
}

TEST(Accounts, GroupListsHaveAnEnd) {
    own_context context;
    std::string text;
    std::vector<gid_t> list = {1, 2, 3};
    EXPECT_EQ(GetGroupIdsForUser("no-such-user", &list, &text), 0);
    EXPECT_EQ(list, std::vector<gid_t>{gid_list_end});
    EXPECT_EQ(text, "'user not found' in getpwnam(no-such-user) call");

    const int count = GetGroupIdsForUser("daemon", &list, &text);
    ASSERT_GE(count, 1);
    ASSERT_EQ(list.size(), static_cast<size_t>(count) + 1);
    EXPECT_EQ(list.back(), gid_list_end);
    EXPECT_TRUE(GetUserNamesGid("daemon", list[0]));
    EXPECT_FALSE(GetUserNamesGid("daemon", 4040404));
    EXPECT_FALSE(GetUserNamesGid("no-such-user", list[0]));

    std::vector<gid_t> fixed(static_cast<size_t>(count) + 1, 99);
    EXPECT_EQ(GetGroupIdsForUserTh("daemon", fixed.data(), count, &text), 0);
    EXPECT_EQ(fixed[0], gid_list_end) << "a list that is too short holds nothing";
    EXPECT_EQ(GetGroupIdsForUserTh("daemon", fixed.data(), count + 1, &text), count);
    EXPECT_EQ(fixed, list);
}

TEST(Accounts, PermissionAndPasswordErrors) {
    qx7_error error;
    EXPECT_EQ(FillMessageOnPermissionError(&error, EPERM, "getpwnam", "ann"), -1);
    EXPECT_EQ(error.qx_msgnr, 2000102);
    EXPECT_STREQ(error.qx_msgInsert, "getpwnam(ann)|1 - Operation not permitted");
    EXPECT_EQ(FillMessageOnPasswordError(&error, ENOENT, "ann"), -1);
    EXPECT_EQ(error.qx_msgnr, 2001007);
    EXPECT_STREQ(error.qx_msgInsert, "ann|");
}

TEST(AccountsAsRoot, MembersOfAGroup) {
    if (!runs_as_root()) {
        return;
    }
    made_user owner("qxown");
    made_user member("qxmem", "!", "-G qxown" + std::to_string(getpid()));
    ASSERT_TRUE(owner.made && member.made);
    EXPECT_TRUE(GetUserNamesGid(member.name.c_str(), owner.gid));
    EXPECT_TRUE(GetUserNamesGid(owner.name.c_str(), owner.gid)) << "by primary group";
    EXPECT_FALSE(GetUserNamesGid(owner.name.c_str(), member.gid));
    uid_t uids[4] = {};
    EXPECT_EQ(GetGroupIds(owner.gid, uids, 4), 1);
    EXPECT_EQ(uids[0], member.uid);
    EXPECT_EQ(GetGroupIds(owner.gid, uids, 0), 0);
    std::vector<gid_t> list;
    EXPECT_EQ(GetGroupIdsForUser(member.name.c_str(), &list, nullptr), 2);
    EXPECT_EQ(list, (std::vector<gid_t>{member.gid, owner.gid, gid_list_end}));
}

}  // namespace
