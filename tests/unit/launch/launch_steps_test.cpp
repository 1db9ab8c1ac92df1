// The parts of a launch that need no process.
#include "launch/launch_steps.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "own_context.h"

namespace {

TEST(LaunchRest, ItemsAreWalkedFromTheStart) {
    const std::string rest = "12='no'X=|M='bash'|M='ksh'N='-xc'2=.B.Y='echo M=\"x\"; N=1'Z=''";
    EXPECT_EQ(GetRestString(rest, "M=", 31), "ksh") << "the first one stands inside the value of X";
    EXPECT_EQ(GetRestString(rest, "N=", 15), "-xc");
    EXPECT_EQ(GetRestString(rest, "N=", 2), "-x");
    EXPECT_EQ(GetRestString(rest, "2=", 1), "B") << "12= is another key";
    EXPECT_EQ(GetRestString(rest, "Y=", 512), "echo M=\"x\"; N=1");
    EXPECT_EQ(GetRestString(rest, "Z=", 512), "");
    EXPECT_EQ(GetRestString(rest, "Q=", 512), "");
}

TEST(LaunchRest, WhatDoesNotParseEndsTheWalk) {
    for (const char* rest :
         {"", "M", "M=", "M='", "M='bash", "junk M='bash'", "A='open M='bash'", "M=''", "   "}) {
        EXPECT_EQ(GetRestString(rest, "M=", 31), "") << rest;
    }
    EXPECT_EQ(GetRestString("  M='bash'", "M=", 31), "bash");
}

std::string job_text(const std::string& jcl, const std::string& sh, const unsigned char* table = nullptr) {
    JOB_START_VAR startVar;
    startVar.jcl = jcl;
    startVar.sh = sh;
    startVar.path_sh = "/bin/" + sh;
    startVar.cCodeTab = table;
    return launch_job_text(startVar, {});
}

TEST(LaunchJobText, LinesEndsAndFilters) {
    const std::string head = "#!  /bin/ksh\n";
    EXPECT_EQ(job_text("", "ksh"), head);
    EXPECT_EQ(job_text("echo a", "ksh"), head + "echo a\n");
    EXPECT_EQ(job_text("echo a\r\n", "ksh"), head + "echo a\n");
    EXPECT_EQ(job_text("a\r\n\r\nb\r", "ksh"), head + "a\n\nb\n");
    EXPECT_EQ(job_text("a\nb\rc\r\r\n", "ksh"), head + "a\nb\rc\r\n") << "only CR LF ends a line";
    EXPECT_EQ(job_text("##QX7[ksh]echo x\r\n##QX7[bash]echo y\r\n##QX7[]z\r\n##QX7[open\r\n##QX7", "ksh"),
              head + "echo x\n##QX7[open\n##QX7\n");
    EXPECT_EQ(job_text("##QX7[ksh]echo x", "-ksh"), "#!  /bin/-ksh\necho x\n")
        << "a login shell counts as its shell";
    EXPECT_EQ(job_text("##QX7[ksh]\r\n", "ksh"), head + "\n");
}

TEST(LaunchJobText, CodeTableAndExtraLine) {
    unsigned char table[256];
    for (int i = 0; i < 256; ++i) {
        table[i] = static_cast<unsigned char>(i == 'a' ? 'A' : i == '\n' ? '?' : i);
    }
    EXPECT_EQ(job_text("banana\r\n\r\n##QX7[sh]a", "sh", table), "#!  /bin/sh\nbAnAnA\n\nA\n")
        << "line ends and the first line are not converted";
    JOB_START_VAR startVar;
    startVar.path_sh = "/bin/sh";
    startVar.jcl = "x";
    EXPECT_EQ(launch_job_text(startVar, "set -e"), "#!  /bin/sh\nset -e\nx\n");
}

TEST(LaunchShell, FamiliesAndTheirOptions) {
    copy_text(launch_context()->Bourne_Shell_opt, "-b");
    copy_text(launch_context()->Korn_Shell_opt, "-k");
    copy_text(launch_context()->C_Shell_opt, "-C");
    struct row {
        const char* sh;
        char flag;
        const char* option;
    };
    for (const row& expected :
         {row{"sh", '0', "-b"}, row{"-sh", '1', "-b"}, row{"bash", '6', "-b"}, row{"-bash", '7', "-b"},
          row{"ksh", '2', "-k"}, row{"-ksh", '3', "-k"}, row{"csh", '4', "-C"}, row{"-csh", '5', "-C"},
          row{"tcsh", '8', "-C"}, row{"-tcsh", '9', "-C"}, row{"zsh", 'x', ""}, row{"-zsh", 'X', ""},
          row{"", 'x', ""}}) {
        EXPECT_EQ(launch_shell_flag(expected.sh), expected.flag) << expected.sh;
        EXPECT_EQ(launch_shell_option(expected.flag), expected.option) << expected.sh;
    }
}

TEST(LaunchShell, SearchAndMemory) {
    own_context context;
    own_folder folder;
    launch_context()->firstSD.clear();
    const std::string first = folder / "one", second = folder / "two";
    mkdir(first.c_str(), 0755);
    mkdir(second.c_str(), 0755);
    const auto program = [](const std::string& path, mode_t mode) {
        write_text(path, "#!/bin/sh\n");
        chmod(path.c_str(), mode);
    };
    mkdir((first + "/qxsh").c_str(), 0755);
    program(second + "/qxsh", 0755);
    program(first + "/notrun", 0644);
    const std::string ini = folder / "agent.ini";
    write_text(ini, "[STARTCMD]\nshell_pfad=" + first + ":" + second + "\n");
    copy_text(context.pcx->IniFile, ini);
    EXPECT_EQ(GetShellPath(context.pcx.get(), "qxsh"), second + "/qxsh") << "a folder is no shell";
    EXPECT_EQ(GetShellPath(context.pcx.get(), "-qxsh"), second + "/qxsh");
    EXPECT_EQ(GetShellPath(context.pcx.get(), "notrun"), "");
    EXPECT_EQ(GetShellPath(context.pcx.get(), "none"), "");
    EXPECT_EQ(GetShellPath(context.pcx.get(), "-"), "");
    EXPECT_EQ(launch_context()->firstSD.size(), 1U) << "found once, not kept when missing";

    const std::string deep = folder / std::string(80, 'd');
    mkdir(deep.c_str(), 0755);
    program(deep + "/deepsh", 0755);
    write_text(ini, "[STARTCMD]\nshell_pfad=" + deep + "\n");
    EXPECT_EQ(GetShellPath(context.pcx.get(), "deepsh"), (deep + "/deepsh").substr(0, 63));
    launch_context()->firstSD.clear();
}

TEST(LaunchEnvironment, OnlyKnownNamesPass) {
    my_passwd_unlimited user;
    copy_text(user.pw_name, "ann");
    copy_text(user.pw_dir, "/home/ann");
    std::vector<std::string> old = {
        "SECRET=1",    "MAIL=/var/mail/root", "PATH=/bin", "LANG=C",  "SHELL=/bin/zsh",
        "PWD=/root",   "LOGIN=root",          "TZ=UTC",    "PATHS=x", "NOVALUE",
        "NLSPATH=/n=1"};
    std::vector<char*> pointers;
    for (std::string& entry : old) {
        pointers.push_back(entry.data());
    }
    pointers.push_back(nullptr);
    EXPECT_EQ(launch_environment(pointers.data(), user, "/bin/ksh"),
              (std::vector<std::string>{"MAIL=/var/mail/ann", "PATH=/bin", "LANG=C", "SHELL=/bin/ksh",
                                        "PWD=/home/ann", "LOGIN=ann", "TZ=UTC", "NLSPATH=/n=1", "LOGNAME=ann",
                                        "HOME=/home/ann", "USER=ann"}));
    copy_text(user.pw_name, "root");
    char path[] = "PATH=/bin", mail[] = "MAIL=box";
    char* two[] = {path, mail, nullptr};
    EXPECT_EQ(launch_environment(two, user, "/bin/sh")[0], "PATH=/bin:/sbin:/usr/sbin");
    EXPECT_EQ(launch_environment(two, user, "/bin/sh")[1], "MAIL=box");

    std::vector<char*> many(128, mail);
    many.push_back(path);
    many.push_back(nullptr);
    EXPECT_EQ(launch_environment(many.data(), user, "/bin/sh").size(), 128U + 3)
        << "the 129th entry is not looked at";
}

TEST(LaunchArguments, OptionsAndQuoting) {
    EXPECT_EQ(launch_command_option(""), "-c");
    EXPECT_EQ(launch_command_option("-x"), "-xc");
    EXPECT_EQ(launch_command_option("-xc"), "-xc");
    EXPECT_EQ(launch_file_argument("/tmp/J_1.txt", "sh", "-c"), "exec /tmp/J_1.txt");
    EXPECT_EQ(launch_file_argument("/tmp/a b", "-tcsh", "-c"), "exec '/tmp/a b'");
    EXPECT_EQ(launch_file_argument("/tmp/a'$(id)", "bash", "-xc"), "exec '/tmp/a'\\''$(id)'");
    EXPECT_EQ(launch_file_argument("/tmp/a b", "sh", ""), "/tmp/a b") << "the shell takes it as a file";
    EXPECT_EQ(launch_file_argument("/tmp/a b", "sh", "-x"), "/tmp/a b");
    EXPECT_EQ(launch_file_argument("/tmp/a.pl", "perl", "-c"), "/tmp/a.pl") << "no command there";
}

TEST(LaunchBatch, PlainWordsMeanNothingToAShell) {
    for (const char* word : {"/tmp/J_1.txt", "user@host,a:b=c%d+e-f"}) {
        EXPECT_TRUE(launch_plain_word(word)) << word;
    }
    for (const char* word : {"", "a b", "$(id)", "a;b", "a\nb", "a'b", "a*", "~ann", "\xc3\xa4"}) {
        EXPECT_FALSE(launch_plain_word(word)) << word;
    }
}

TEST(LaunchFiles, RelativeNamesStandBelowTheWorkFolder) {
    own_context context;
    copy_text(context.pcx->pcx_work_dir, "/opt/agent");
    EXPECT_EQ(launch_complete_path(context.pcx.get(), "job.txt"), "/opt/agent/job.txt");
    EXPECT_EQ(launch_complete_path(context.pcx.get(), "/tmp/job.txt"), "/tmp/job.txt");
    EXPECT_EQ(launch_complete_path(context.pcx.get(), ""), "");
}

}  // namespace
