#include "identity/pam.h"

#include <dlfcn.h>
#include <grp.h>
#include <gtest/gtest.h>

#include "fake_pam.h"
#include "identity/password_check.h"
#include "own_context.h"

namespace {

struct Pam : testing::Test {
    own_context context;
    void* library = nullptr;
    fake_pam_state* script = nullptr;
    std::string text;

    void SetUp() override {
        qx7_error error;
        ASSERT_EQ(loadDLL(context.pcx.get(), QX_FAKE_PAM, &library, &error), 0) << error.qx_msgInsert;
        char missing[64];
        ASSERT_EQ(LoadPamFunctions(library, missing, sizeof missing, &error), 0);
        script = reinterpret_cast<fake_pam_state* (*)()>(dlsym(library, fake_pam_symbol))();
        *script = {};
        script->styles = {PAM_PROMPT_ECHO_OFF};
        pam_options = {};
    }
    void TearDown() override {
        EXPECT_EQ(script->open_handles, 0) << "a handle was left open";
        qx7_error error;
        unloadDLL(context.pcx.get(), library, QX_FAKE_PAM, &error);
    }
    int check(const char* password, pam_handle_t** handle = nullptr) {
        return PamPasswordCheck("daemon", password, &text, handle);
    }
};

using calls = std::vector<std::string>;

TEST_F(Pam, AGoodPasswordPassesAllSteps) {
    pam_options.do_pam_setcred = true;
    EXPECT_EQ(check("secret"), 1);
    EXPECT_EQ(script->calls,
              (calls{"start", "authenticate", "acct_mgmt", "set credentials", "delete credentials", "end"}));
    EXPECT_EQ(script->answers, calls{"secret"});
    EXPECT_EQ(script->service, "qxxjlnx");
}

TEST_F(Pam, UnknownAndMissingUser) {
    EXPECT_EQ(PamPasswordCheck("", "x", &text, nullptr), 0);
    EXPECT_EQ(text, "user not specified");
    EXPECT_EQ(PamPasswordCheck("no-such-user", "x", &text, nullptr), 0);
    EXPECT_EQ(text, "getpwnam()Authentication failure: user 'no-such-user' is unknown");
    EXPECT_TRUE(script->calls.empty());
}

TEST_F(Pam, EachFailureEndsTheHandle) {
    pam_options.do_pam_setcred = true;
    struct row {
        int fake_pam_state::*call;
        const char* text;
        calls end;
    };
    for (const row& step :
         {row{&fake_pam_state::start, "fake failure 07", {}},
          row{&fake_pam_state::authenticate, "fake failure 07", {"end"}},
          row{&fake_pam_state::acct_mgmt, "fake failure 07", {"delete credentials", "end"}}}) {
        *script = {};
        script->styles = {PAM_PROMPT_ECHO_OFF};
        script->*step.call = 7;
        EXPECT_EQ(check("secret"), 0);
        EXPECT_EQ(text, step.text);
        ASSERT_GE(script->calls.size(), step.end.size());
        EXPECT_EQ(calls(script->calls.end() - static_cast<long>(step.end.size()), script->calls.end()),
                  step.end);
        EXPECT_EQ(script->open_handles, 0);
        EXPECT_EQ(script->sleeps, 0) << "a wrong password must not hold up everybody";
    }
    *script = {};
    script->styles = {PAM_PROMPT_ECHO_OFF};
    script->end = 4;
    EXPECT_EQ(check("secret"), 0);
    EXPECT_EQ(text, "failed to release PAM authenticator.");
}

TEST_F(Pam, AStackThatNeverAsksDoesNotPass) {
    script->styles = {};
    EXPECT_EQ(check("secret"), 0);
    EXPECT_EQ(text, "Authentication failure");
    script->styles = {PAM_TEXT_INFO, PAM_ERROR_MSG};
    EXPECT_EQ(check("secret"), 0) << "showing a text is not asking";
    EXPECT_EQ(script->answers, (calls{"-", "-"}));
}

TEST_F(Pam, OneAnswerForEachMessageAndOnlyToPrompts) {
    script->styles = {PAM_TEXT_INFO, PAM_PROMPT_ECHO_ON, PAM_PROMPT_ECHO_OFF, PAM_ERROR_MSG};
    EXPECT_EQ(check("secret"), 1);
    EXPECT_EQ(script->answers, (calls{"-", "secret", "secret", "-"}));
}

TEST_F(Pam, AnEmptyPasswordAndAFailureWithoutAQuestion) {
    script->styles = {};
    script->authenticate = PAM_AUTH_ERR;
    EXPECT_EQ(check(""), 1) << "the account check decides";
    context.pcx->pcx_hardened = 1;
    EXPECT_EQ(check(""), 0) << "daemon has a password field that isn't empty";
    context.pcx->pcx_hardened = 0;
    script->acct_mgmt = 6;
    EXPECT_EQ(check(nullptr), 0);
    EXPECT_EQ(text, "fake failure 06");
    script->styles = {PAM_PROMPT_ECHO_OFF};
    EXPECT_EQ(check(""), 0) << "it asked and the answer was wrong";
}

TEST_F(Pam, AnExpiredPasswordIsNeverReplacedByItself) {
    script->acct_mgmt = PAM_NEW_AUTHTOK_REQD;
    script->asks_in_chauthtok = true;
    script->chauthtok = 20;
    EXPECT_EQ(check("secret"), 0);
    EXPECT_EQ(text, "fake failure 20");
    EXPECT_EQ(script->conversation_result, PAM_CONV_ERR);
    EXPECT_EQ(script->answers, calls{"secret"}) << "only authenticate got an answer";
    script->chauthtok = 0;
    EXPECT_EQ(check("secret"), 1);
}

TEST_F(Pam, TheHandleGoesToTheCallerWhenSessionsAreOn) {
    pam_options = {true, true, true};
    pam_handle_t* handle = nullptr;
    ASSERT_EQ(check("secret", &handle), 1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(script->calls, (calls{"start", "authenticate", "acct_mgmt", "set credentials"}))
        << "the child opens it";
    script->calls.clear();
    PamEndAfterStart(handle);
    EXPECT_EQ(script->calls, calls{"end"}) << "credentials stay with the job";
    EXPECT_EQ(script->end_status, 0x40000000);

    pam_options = {true, true, false};
    script->open_session = 14;
    EXPECT_EQ(check("secret", &handle), 0);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(text, "fake failure 14");
}

TEST_F(Pam, GroupsOfTheAgentAreKept) {
    if (!runs_as_root()) {
        return;
    }
    gid_t before[1000], after[1000];
    const int count = getgroups(1000, before);
    script->changes_groups = true;
    EXPECT_EQ(check("secret"), 1);
    ASSERT_EQ(getgroups(1000, after), count);
    EXPECT_TRUE(std::equal(before, before + count, after));
}

TEST_F(Pam, EnvironmentEntriesThatHarmDoNotPass) {
    EXPECT_TRUE(PamEnvToExport("KRB5CCNAME=FILE:/tmp/x"));
    EXPECT_TRUE(PamEnvToExport("PATHS=1"));
    EXPECT_TRUE(PamEnvToExport("A=" + std::string(1022, 'x')));
    EXPECT_FALSE(PamEnvToExport("A=" + std::string(1023, 'x')));
    for (const char* entry : {"NOTHING", "LD_PRELOAD=x", "LD_=1", "SHELL=x", "LOGNAME=x", "MAIL=x",
                              "CDPATH=x", "IFS=x", "PATH=/evil"}) {
        EXPECT_FALSE(PamEnvToExport(entry)) << entry;
    }
    pam_options = {false, true, true};
    script->environment = {"QX_TEST_GIVEN=yes", "LD_PRELOAD=evil.so"};
    pam_handle_t* handle = nullptr;
    ASSERT_EQ(check("secret", &handle), 1);
    PamGetSetEnvironment(handle);
    PamEnd(handle, 0, false);
    EXPECT_STREQ(getenv("QX_TEST_GIVEN"), "yes");
    EXPECT_EQ(getenv("LD_PRELOAD"), nullptr);
}

TEST_F(Pam, TheDispatcherUsesPamWhenItIsChosen) {
    context.pcx->pcx_strt_euid = 0;
    context.pcx->pcx_Auth = AUTH_PAM;
    EXPECT_EQ(PasswordCheck(1, 3, {}, "daemon", &text, nullptr), PASSWORD_ACCEPTED);
    EXPECT_EQ(script->calls.front(), "start");
}

TEST(PamLibrary, MissingLibraryAndMissingFunction) {
    own_context context;
    qx7_error error;
    void* handle = nullptr;
    EXPECT_EQ(loadDLL(context.pcx.get(), "libno-such-pam.so", &handle, &error), -1);
    EXPECT_EQ(error.qx_msgnr, 2000087);
    EXPECT_EQ(std::string(error.qx_msgInsert).rfind("libno-such-pam.so|", 0), 0U);
    ASSERT_EQ(loadDLL(context.pcx.get(), "libz.so.1", &handle, &error), 0);
    char missing[64];
    EXPECT_EQ(LoadPamFunctions(handle, missing, sizeof missing, &error), -1);
    EXPECT_STREQ(missing, "pam_start");
    dlclose(handle);
}

TEST(PamLibrary, SettingsChooseTheMethod) {
    own_context context;
    own_folder folder;
    const auto bind = [&](const std::string& ini) {
        write_text(folder / "agent.ini", ini);
        copy_text(context.pcx->IniFile, folder / "agent.ini");
        return BindPamDll();
    };
    EXPECT_EQ(bind("[MISC]\n"), 0);
    EXPECT_EQ(context.pcx->pcx_Auth, AUTH_LOCAL);
    EXPECT_EQ(bind("[MISC]\nauthentication=pam\n[PAM]\nlibname=" QX_FAKE_PAM "\n"), 0);
    EXPECT_EQ(context.pcx->pcx_Auth, AUTH_PAM);
    EXPECT_EQ(context.pcx->pcx_flag.load(), PCX_FLAG_PAM_LOADED);
    qx7_error error;
    unloadDLL(context.pcx.get(), context.pcx->pam_handle, QX_FAKE_PAM, &error);
    EXPECT_EQ(context.pcx->pcx_flag.load(), 0);
    EXPECT_EQ(bind("[MISC]\nauthentication=PAM\n[PAM]\nlibname=libno-such-pam.so\n"), -1);
}

}  // namespace
