// What a start of a job by the tests' own user needs: his account, with a plain shell and a folder of the test as
// his home, and a code table that changes nothing.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "base/context.h"
#include "base/error.h"
#include "base/text.h"
#include "identity/accounts.h"
#include "launch/launch_settings.h"

struct job_start {
    my_passwd_unlimited user;
    unsigned char table[256];
    qx7_error error;

    void prepare(EX_PCX* pcx, const std::string& folder) {
        chmod(folder.c_str(), 0755);
        *launch_context() = {};
        copy_text(launch_context()->Bourne_Shell_opt, "-c");
        ASSERT_TRUE(GetPwdNameStruct(pcx->pcx_runUserName, &user, &error));
        copy_text(user.pw_shell, "/bin/sh");
        copy_text(user.pw_dir, folder);
        for (int i = 0; i < 256; ++i) {
            table[i] = static_cast<unsigned char>(i);
        }
    }
};
