// A context of the test's own process, a folder of its own, and users that tests make when they run as root.
#pragma once

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "base/context.h"
#include "base/text.h"
#include "scratch.h"

// GlbPcx with the identity under which the test runs.
struct own_context {
    std::unique_ptr<EX_PCX> pcx = std::make_unique<EX_PCX>();

    own_context() {
        const passwd* self = getpwuid(geteuid());
        const std::string name = self == nullptr ? "" : self->pw_name;
        pcx->pcx_strt_uid = pcx->pcx_run_uid = getuid();
        pcx->pcx_strt_euid = pcx->pcx_run_euid = geteuid();
        pcx->pcx_run_gid = getgid();
        pcx->pcx_run_egid = getegid();
        copy_text(pcx->pcx_runUserName, name);
        copy_text(pcx->ProgName, "qxxjlnx");
        gid_t groups[1000];
        const int count = getgroups(1000, groups);
        pcx->pcx_run_gid_tab[0] = getegid();
        for (int i = 0; i < count; ++i) {
            pcx->pcx_run_gid_tab[i + 1] = groups[i];
        }
        pcx->pcx_run_gid_tab[(count < 0 ? 0 : count) + 1] = static_cast<gid_t>(-1);
        GlbPcx = pcx.get();
    }
    own_context(const own_context&) = delete;
    own_context& operator=(const own_context&) = delete;
    ~own_context() { GlbPcx = nullptr; }
};

using own_folder = scratch;

inline std::string read_text(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void write_text(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// A user of the host for the time of a test, with a name of its own, since tests run side by side. Only root
// can make one: `made` is false otherwise.
struct made_user {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    bool made = false;

    // `hash` as in the shadow database; `more` are further options of useradd.
    explicit made_user(const std::string& user, const std::string& hash = "!", const std::string& more = "")
        : name(user + std::to_string(getpid())) {
        if (geteuid() != 0) {
            return;
        }
        remove();
        const std::string command =
            "useradd -m -U -s /bin/bash -p '" + hash + "' " + more + " " + name + " >/dev/null 2>&1";
        made = system(command.c_str()) == 0;
        if (const passwd* record = getpwnam(name.c_str()); record != nullptr) {
            uid = record->pw_uid;
            gid = record->pw_gid;
        }
    }
    made_user(const made_user&) = delete;
    made_user& operator=(const made_user&) = delete;
    ~made_user() {
        if (made) {
            remove();
        }
    }

  private:
    void remove() const { (void)!system(("userdel -r " + name + " >/dev/null 2>&1").c_str()); }
};

// True when the test may go on; otherwise it says why it ends here.
inline bool runs_as_root() {
    if (geteuid() == 0) {
        return true;
    }
    fputs("this case needs root\n", stderr);
    return false;
}
