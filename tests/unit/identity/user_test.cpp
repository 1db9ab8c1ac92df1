// Borrowed identities, files under them, and rights.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "base/descriptor.h"
#include "identity/rights.h"
#include "identity/switch_user.h"
#include "identity/user_files.h"
#include "own_context.h"

namespace {

std::vector<gid_t> current_groups() {
    std::vector<gid_t> groups(1000);
    const int count = getgroups(1000, groups.data());
    groups.resize(static_cast<size_t>(count < 0 ? 0 : count));
    return groups;
}

TEST(Switch, TheOwnUserNeedsNone) {
    own_context context;
    qx7_error error;
    effUser_guard lock;
    EXPECT_EQ(PrepToEffUser(context.pcx->pcx_runUserName, &error), SWITCH_NOT_NEEDED);
    EXPECT_EQ(PrepToExUser(&error), SWITCH_NOT_NEEDED);
}

TEST(Switch, AnUnknownUserIsNotBorrowed) {
    own_context context;
    qx7_error error;
    effUser_guard lock;
    EXPECT_EQ(PrepToEffUser("no-such-user", &error), SWITCH_FAILED);
    EXPECT_EQ(error.qx_msgnr, 2001007);
    EXPECT_STREQ(error.qx_msgInsert, "no-such-user|");
}

TEST(Switch, AListWithoutAGroupIsRefused) {
    const gid_t empty[] = {static_cast<gid_t>(-1)};
    std::string text;
    EXPECT_EQ(SwitchToEffUser("ann", 1, empty, "", &text), SWITCH_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(text, "ann - setgroups(0, ..)");
}

TEST(Switch, WithoutRootNobodyElseCanBeBorrowed) {
    if (geteuid() == 0) {
        return;  // the case below tells what root can do
    }
    own_context context;
    qx7_error error;
    effUser_guard lock;
    EXPECT_EQ(PrepToEffUser("root", &error), SWITCH_FAILED);
    EXPECT_EQ(error.qx_msgnr, 2003043);
    EXPECT_EQ(std::string(error.qx_msgInsert), "SwitchToEffUser(root)|1|Operation not permitted|");
}

TEST(SwitchAsRoot, TakesUidAndGroupsAndGivesThemBack) {
    if (!runs_as_root()) {
        return;
    }
    // Root's own supplementary groups must not stay with the user.
    const gid_t agent_groups[] = {4, 27};
    const std::vector<gid_t> before = current_groups();
    ASSERT_EQ(setgroups(2, agent_groups), 0);
    own_context context;
    own_folder folder;
    write_text(folder / "private", "root's");
    chmod((folder / "private").c_str(), 0600);
    made_user user("qxsw");
    ASSERT_TRUE(user.made);
    {
        qx7_error error;
        effective_user as(user.name.c_str(), &error);
        ASSERT_TRUE(as.ok()) << error.qx_msgInsert;
        EXPECT_EQ(geteuid(), user.uid);
        EXPECT_EQ(getegid(), user.gid);
        EXPECT_TRUE(current_groups().empty());
        EXPECT_LT(open((folder / "private").c_str(), O_RDONLY), 0);
        EXPECT_EQ(as.finish(0, &error), 0);
    }
    EXPECT_EQ(geteuid(), 0U);
    EXPECT_EQ(getegid(), 0U);
    EXPECT_EQ(current_groups(), (std::vector<gid_t>{4, 27}));
    {
        qx7_error error;
        effective_user as("no-such-user", &error);
        EXPECT_FALSE(as.ok());
    }
    EXPECT_EQ(geteuid(), 0U);
    setgroups(before.size(), before.data());
}

TEST(SwitchAsRoot, ForGoodThereIsNoWayBack) {
    if (!runs_as_root()) {
        return;
    }
    made_user user("qxgood");
    ASSERT_TRUE(user.made);
    EXPECT_EXIT(
        {
            qx7_error error;
            const bool ok =
                subtitute_user_identity(user.uid, user.gid, user.name.c_str(), &error, false) == 0 &&
                getuid() == user.uid && geteuid() == user.uid && getegid() == user.gid && seteuid(0) != 0 &&
                setuid(0) != 0;
            const bool refused = subtitute_user_identity(0, 0, "root", &error, false) == -1 &&
                                 error.qx_msgnr == 2000102 &&
                                 std::string(error.qx_msgInsert) == "setgid(0)|1-Operation not permitted";
            _exit(ok && refused ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// ---- Files

struct UserFiles : testing::Test {
    own_context context;
    own_folder folder;
    qx7_error error;
    const char* own() const { return context.pcx->pcx_runUserName; }
};

TEST_F(UserFiles, SpecialFilesDoNotStopAnybody) {
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(Open_ReadEffUser(own(), pipe.c_str(), &error), -1);
    EXPECT_EQ(error.qx_errno, EINVAL);
    EXPECT_EQ(StreamOpen_EffUser(own(), pipe.c_str(), "w", &error), nullptr);
    EXPECT_NE(error.qx_errno, 0);
    EXPECT_EQ(open_read_on_order(pipe.c_str()), -1);
    EXPECT_EQ(removeFile_EffUser(own(), pipe.c_str(), &error), -1);
    EXPECT_EQ(error.qx_errno, EPERM);
    EXPECT_STREQ(error.qx_msgInsert, "FileRemove() error 'Operation not permitted'");
    EXPECT_EQ(Open_ReadEffUser(own(), folder.path.c_str(), &error), -1);
    EXPECT_EQ(error.qx_errno, EISDIR);
    // What the kernel tells whoever reads is the agent's memory map here, whatever leads there.
    ASSERT_EQ(symlink("/proc/self/maps", (folder / "link").c_str()), 0);
    for (const std::string& name :
         {folder / "link", std::string("/proc/self/maps"), std::string("/sys/kernel/uevent_seqnum")}) {
        EXPECT_EQ(Open_ReadEffUser(own(), name.c_str(), &error), -1) << name;
        EXPECT_EQ(error.qx_errno, EACCES) << name;
    }
    EXPECT_EQ(open_read_on_order("/proc/self/maps"), -1);
}

TEST_F(UserFiles, OpenWriteAppendReadRemove) {
    const std::string file = folder / "file";
    int fd = Open_WriteEffUser(own(), file.c_str(), 0640, &error);
    ASSERT_GE(fd, 0) << error.qx_msgInsert;
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(write(fd, "one", 3), 3);
    EXPECT_EQ(close_fdEffUser(own(), fd, &error), 0);
    fd = Open_AppendEffUser(own(), file.c_str(), 0640, &error);
    EXPECT_EQ(write(fd, "two", 3), 3);
    close_fdEffUser(own(), fd, &error);
    EXPECT_EQ(read_text(file), "onetwo");
    fd = Open_WriteEffUser(own(), file.c_str(), 0640, &error);
    close_fdEffUser(own(), fd, &error);
    EXPECT_EQ(read_text(file), "");
    EXPECT_EQ(rename_fileEffUser(own(), file.c_str(), (folder / "other").c_str(), &error), 0);
    EXPECT_EQ(RemoveWithEffUser(own(), file.c_str(), &error), 0) << "there was none";
    EXPECT_EQ(error.qx_errno, 0);
    EXPECT_EQ(RemoveWithEffUser(own(), (folder / "other").c_str(), &error), 1);
    EXPECT_EQ(Open_ReadEffUser(own(), file.c_str(), &error), -1);
    EXPECT_EQ(error.qx_errno, ENOENT);
}

TEST_F(UserFiles, StreamsModesTimesDirectories) {
    const mode_t mask = umask(077);
    EXPECT_EQ(createDir_EffUser(own(), (folder / "dir").c_str(), 0755, &error), 0);
    const std::string deep = folder / "dir/a/b/file";
    const int fd = createDirFile_EffUser(own(), deep.c_str(), 0751, &error);
    ASSERT_GE(fd, 0) << error.qx_msgInsert;
    close(fd);
    struct stat status;
    ASSERT_EQ(stat(deep.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0751U);
    ASSERT_EQ(stat((folder / "dir").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
    FILE* stream = StreamOpenChmod_EffUser(own(), deep.c_str(), "w", 0604, &error);
    ASSERT_NE(stream, nullptr);
    fputs("text", stream);
    EXPECT_EQ(StreamCloseSetTimes_EffUser(own(), stream, deep.c_str(), 1000, 2000, &error), 0);
    ASSERT_EQ(stat(deep.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0604U);
    EXPECT_EQ(status.st_atim.tv_sec, 1000);
    EXPECT_EQ(status.st_mtim.tv_sec, 2000);
    EXPECT_EQ(status.st_size, 4);
    EXPECT_EQ(removeDir_EffUser(own(), (folder / "dir").c_str(), &error), -1);
    EXPECT_EQ(error.qx_errno, ENOTEMPTY);
    umask(mask);
}

TEST_F(UserFiles, WalkFindsFolderAndName) {
    file_way way;
    ASSERT_EQ(mkdir((folder / "real").c_str(), 0700), 0);
    ASSERT_EQ(symlink("real", (folder / "link").c_str()), 0);
    ASSERT_EQ(symlink((folder / "link").c_str(), (folder / "far").c_str()), 0);
    ASSERT_EQ(symlink("loop", (folder / "loop").c_str()), 0);
    for (const char* path : {"real/x", "link/x", "far/./x", "far/../real//x"}) {
        ASSERT_EQ(walk_way((folder / path).c_str(), &way), 0) << path;
        EXPECT_EQ(way.name, "x");
        EXPECT_TRUE(way.trusted);
        struct stat walked, direct;
        ASSERT_EQ(fstat(way.dir.get(), &walked), 0);
        ASSERT_EQ(stat((folder / "real").c_str(), &direct), 0);
        EXPECT_EQ(walked.st_ino, direct.st_ino) << path;
    }
    const std::pair<std::string, int> bad[] = {{"relative", EINVAL},
                                               {"", EINVAL},
                                               {"/", EINVAL},
                                               {folder / "real/..", EINVAL},
                                               {folder / "real/", EINVAL},
                                               {folder / "loop/x", ELOOP},
                                               {folder / "no/x", ENOENT},
                                               {"/" + std::string(5000, 'x'), ENAMETOOLONG}};
    for (const auto& [path, expected] : bad) {
        EXPECT_EQ(walk_way(path.c_str(), &way), -1) << path;
        EXPECT_EQ(errno, expected) << path;
    }
}

TEST_F(UserFiles, ANewFileNeverGoesThroughALink) {
    const std::string victim = folder / "victim";
    const std::string name = folder / "job";
    write_text(victim, "precious");
    ASSERT_EQ(symlink(victim.c_str(), name.c_str()), 0);
    const file_result made = make_file_for(name.c_str(), "content", 0700, own(), getuid(), getgid());
    EXPECT_EQ(made.failed, FILE_STEP_NONE);
    EXPECT_EQ(read_text(victim), "precious");
    EXPECT_EQ(read_text(name), "content");
    struct stat status;
    ASSERT_EQ(lstat(name.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_EQ(status.st_ino, made.inode);

    ASSERT_EQ(mkdir((folder / "dir").c_str(), 0700), 0);
    const file_result refused = make_file_for((folder / "dir").c_str(), "", 0700, own(), getuid(), getgid());
    EXPECT_EQ(refused.failed, FILE_STEP_CREATE);
    EXPECT_EQ(refused.error_number, EEXIST);
    EXPECT_EQ(open_read_on_order((folder / "none").c_str()), -1);
    ASSERT_EQ(symlink(victim.c_str(), (folder / "link").c_str()), 0);
    EXPECT_EQ(open_read_on_order((folder / "link").c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(UserFiles, AFullDiskLeavesNoHalfFile) {
    const std::string name = folder / "job";
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small = {4096, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const file_result result =
        make_file_for(name.c_str(), std::string(10000, 'x'), 0700, own(), getuid(), getgid());
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(result.failed, FILE_STEP_WRITE);
    EXPECT_EQ(result.error_number, EFBIG);
    EXPECT_NE(::access(name.c_str(), F_OK), 0);
}

// How many descriptors lead to a folder.
int held(const std::string& path) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry.path(), gone) == path ? 1 : 0;
    }
    return count;
}

TEST_F(UserFiles, AFolderInUseIsKeptAsLongAsItIsTheSame) {
    const std::string in_use = folder / "in_use";
    ASSERT_EQ(mkdir(in_use.c_str(), 0755), 0);
    const auto make = [&] {
        return make_file_for((in_use + "/job").c_str(), "x", 0700, own(), getuid(), getgid());
    };
    EXPECT_EQ(make().failed, FILE_STEP_NONE);
    EXPECT_EQ(held(in_use), 1);
    EXPECT_EQ(make().failed, FILE_STEP_NONE);
    EXPECT_EQ(held(in_use), 1) << "once";
    // The administrator puts another one in its place, or leads the name elsewhere.
    ASSERT_EQ(rename(in_use.c_str(), (folder / "old").c_str()), 0);
    EXPECT_EQ(make().error_number, ENOENT);
    ASSERT_EQ(mkdir(in_use.c_str(), 0755), 0);
    EXPECT_EQ(make().failed, FILE_STEP_NONE);
    EXPECT_EQ(::access((in_use + "/job").c_str(), F_OK), 0);
    EXPECT_EQ(remove_on_order((in_use + "/job").c_str()), 0);
    EXPECT_EQ(::access((folder / "old/job").c_str(), F_OK), 0) << "nothing was removed in the other one";
    ASSERT_EQ(rename(in_use.c_str(), (folder / "new").c_str()), 0);
    ASSERT_EQ(symlink("old", in_use.c_str()), 0);
    EXPECT_TRUE(qx_descriptor(open_read_on_order((in_use + "/job").c_str())).valid());
    if (runs_as_root()) {
        EXPECT_EQ(chown((folder / "old").c_str(), 4242, 4242), 0);
        EXPECT_EQ(make().error_number, EPERM) << "given to a stranger meanwhile";
    }
}

TEST(Accounts, WhatIsAskedAgainAndAgainIsKept) {
    own_context context;
    const std::string name = context.pcx->pcx_runUserName;
    const auto bytes_read = [] {
        std::ifstream io("/proc/self/io");
        std::string word;
        int64_t count = 0;
        io >> word >> count;
        return count;
    };
    my_passwd_unlimited user;
    std::vector<gid_t> groups;
    const auto ask = [&] {
        const int64_t before = bytes_read();
        EXPECT_TRUE(AccountOfUser(name.c_str(), &user, nullptr));
        EXPECT_GT(account_groups(name.c_str(), user.pw_gid, &groups), 0);
        EXPECT_FALSE(GroupNameOfAccount(user.pw_gid).empty());
        return bytes_read() - before;
    };
    const std::vector<gid_t> first = (ask(), groups);
    my_passwd_unlimited direct;
    ASSERT_TRUE(GetPwdNameStruct(name.c_str(), &direct, nullptr));
    EXPECT_LT(ask(), 400) << "no database is read, only this process's own figures";
    EXPECT_EQ(groups, first);
    EXPECT_EQ(user.pw_uid, direct.pw_uid);
    EXPECT_STREQ(user.pw_dir, direct.pw_dir);
    EXPECT_STREQ(user.pw_shell, direct.pw_shell);
    EXPECT_FALSE(AccountOfUser("qx-no-such-user", &user, nullptr));
    if (!runs_as_root()) {
        return;
    }
    {
        made_user ann("qxkept");
        ASSERT_TRUE(AccountOfUser(ann.name.c_str(), &user, nullptr));
        EXPECT_EQ(user.pw_uid, ann.uid);
        ASSERT_GT(account_groups(ann.name.c_str(), ann.gid, &groups), 0);
        const size_t before = groups.size();
        made_user group("qxkgrp");
        EXPECT_EQ(system(("usermod -a -G " + group.name + " " + ann.name).c_str()), 0);
        account_groups(ann.name.c_str(), ann.gid, &groups);
        EXPECT_EQ(groups.size(), before + 1) << "a changed database counts at once";
        EXPECT_EQ(system(("usermod -d /elsewhere " + ann.name).c_str()), 0);
        ASSERT_TRUE(AccountOfUser(ann.name.c_str(), &user, nullptr));
        EXPECT_STREQ(user.pw_dir, "/elsewhere");
    }
}

TEST(UserFilesAsRoot, StrangersOnTheWay) {
    if (!runs_as_root()) {
        return;
    }
    own_context context;
    own_folder folder;
    ASSERT_EQ(chmod(folder.path.c_str(), 0755), 0);
    made_user ann("qxann"), bob("qxbob");
    ASSERT_TRUE(ann.made && bob.made);
    const std::string anns = folder / "ann";
    ASSERT_EQ(mkdir(anns.c_str(), 0755), 0);
    ASSERT_EQ(chown(anns.c_str(), ann.uid, ann.gid), 0);
    const std::string both = anns + "/bob";
    ASSERT_EQ(mkdir(both.c_str(), 0755), 0);
    ASSERT_EQ(chown(both.c_str(), bob.uid, bob.gid), 0);
    const auto make = [](const std::string& path, const made_user& user) {
        return make_file_for(path.c_str(), "x", 0700, user.name.c_str(), user.uid, user.gid);
    };

    EXPECT_EQ(make(anns + "/job", ann).failed, FILE_STEP_NONE);
    struct stat status;
    ASSERT_EQ(stat((anns + "/job").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ann.uid);
    EXPECT_EQ(make(anns + "/job", bob).error_number, EPERM);
    EXPECT_EQ(make(both + "/job", bob).error_number, EPERM)
        << "two strangers: ann could lead bob's job elsewhere";
    EXPECT_EQ(make(folder / "job", bob).failed, FILE_STEP_NONE);
    EXPECT_EQ(geteuid(), 0U);

    // The folder's owner plants links to what is not his: nothing is read, made or removed there with root's
    // rights.
    ASSERT_EQ(symlink("/etc", (anns + "/etc").c_str()), 0);
    ASSERT_EQ(lchown((anns + "/etc").c_str(), ann.uid, ann.gid), 0);
    EXPECT_EQ(open_read_on_order((anns + "/etc/shadow").c_str()), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(remove_on_order((anns + "/etc/hostname").c_str()), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(make(anns + "/etc/qx-job", ann).error_number, EACCES);
    ASSERT_EQ(link("/etc/shadow", (anns + "/hard").c_str()) == 0 || errno == EXDEV, true);
    EXPECT_EQ(open_read_on_order((anns + "/hard").c_str()), -1);
    const qx_descriptor own_file(open_read_on_order((anns + "/job").c_str()));
    EXPECT_TRUE(own_file.valid());
    EXPECT_EQ(remove_on_order((anns + "/job").c_str()), 0);

    qx7_error error;
    write_text(folder / "secret", "root's");
    chmod((folder / "secret").c_str(), 0600);
    EXPECT_EQ(Open_ReadEffUser(ann.name.c_str(), (folder / "secret").c_str(), &error), -1);
    EXPECT_EQ(error.qx_errno, EACCES);
    EXPECT_EQ(removeFile_EffUser(ann.name.c_str(), (folder / "secret").c_str(), &error), -1);
    EXPECT_EQ(geteuid(), 0U);

    // What the agent has open, or the folder it works in, is no way around a closed folder.
    ASSERT_EQ(mkdir((folder / "closed").c_str(), 0700), 0);
    write_text(folder / "closed/file", "for all who may enter");
    chmod((folder / "closed/file").c_str(), 0666);
    const qx_descriptor file(open((folder / "closed/file").c_str(), O_RDONLY | O_CLOEXEC));
    const qx_descriptor closed(open((folder / "closed").c_str(), O_PATH | O_CLOEXEC));
    const std::string own = "/proc/self/fd/";
    for (const std::string& way :
         {own + std::to_string(file.get()), own + std::to_string(closed.get()) + "/file"}) {
        for (const bool links : {true, false}) {
            EXPECT_EQ(Open_ReadEffUser(ann.name.c_str(), way.c_str(), &error, links), -1) << way;
            EXPECT_EQ(error.qx_errno, ELOOP);
        }
        EXPECT_EQ(Open_AppendEffUser(ann.name.c_str(), way.c_str(), 0600, &error), -1) << way;
        EXPECT_EQ(StreamOpen_EffUser(ann.name.c_str(), way.c_str(), "r", &error), nullptr) << way;
    }
}

// ---- Rights

TEST(Rights, OfTheAgentsOwnUserAreLeftToTheCall) {
    own_context context;
    std::string text;
    EXPECT_EQ(CheckFileAccess("/no/such", context.pcx->pcx_runUserName, FILE_ACCESS_READ, &text), 1);
    EXPECT_EQ(CheckFileAccess("/etc/passwd", "no-such-user", FILE_ACCESS_READ, &text), 0);
    EXPECT_EQ(text, "getpwnam(no-such-user) - No such file or directory");
    EXPECT_EQ(uicFileAuthority("", "/no/such", FILE_ACCESS_READ, 1, nullptr, &text), 1);
}

TEST(Rights, OnlyTheFirstClassCounts) {
    own_context context;
    own_folder folder;
    const std::string file = folder / "file";
    write_text(file, "x");
    my_passwd_unlimited owner, stranger;
    owner.pw_uid = getuid();
    owner.pw_gid = getgid();
    stranger.pw_uid = 4040404;
    stranger.pw_gid = 4040404;
    std::string text;
    chmod(file.c_str(), 0066);
    EXPECT_EQ(ReadFileAccess(file.c_str(), &owner, &text), 0) << "group and world don't help the owner";
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(text, "read (owner) permission denied '" + file + "'");
    EXPECT_EQ(ReadFileAccess(file.c_str(), &stranger, &text), 1);
    EXPECT_EQ(WriteFileAccess(file.c_str(), &stranger, &text), 1);
    chmod(file.c_str(), 0604);
    EXPECT_EQ(WriteFileAccess(file.c_str(), &owner, &text), 1);
    EXPECT_EQ(WriteFileAccess(file.c_str(), &stranger, &text), 0);
    EXPECT_EQ(text, "write (world) permission denied '" + file + "'");
    EXPECT_EQ(ReadFileAccess((folder / "none").c_str(), &owner, &text), -1);
    EXPECT_EQ(text, "GetFileCatalog(" + (folder / "none") + ")");
}

TEST(RightsAsRoot, RemovalAndStickyFolders) {
    if (!runs_as_root()) {
        return;
    }
    own_context context;
    own_folder folder;
    made_user ann("qxra"), bob("qxrb", "!", "-G qxra" + std::to_string(getpid()));
    ASSERT_TRUE(ann.made && bob.made);
    my_passwd_unlimited bobs, anns;
    ASSERT_TRUE(GetPwdNameStruct(bob.name.c_str(), &bobs, nullptr));
    ASSERT_TRUE(GetPwdNameStruct(ann.name.c_str(), &anns, nullptr));
    const std::string file = folder / "file";
    write_text(file, "x");
    ASSERT_EQ(chown(file.c_str(), ann.uid, ann.gid), 0);
    std::string text;
    struct row {
        uid_t owner;
        gid_t group;
        mode_t mode;
        int ann, bob;
        const char* text;
    };
    for (const row& expected :
         {row{0, ann.gid, 0770, 1, 1, ""}, row{0, ann.gid, 01770, 1, 0, "delete (group) permission denied '"},
          row{0, ann.gid, 0707, 0, 0, "delete (group) permission denied '"}, row{0, 0, 0703, 1, 1, ""},
          row{0, 0, 01703, 1, 0, "remove permission denied '"}, row{bob.uid, 0, 0700, 0, 1, ""},
          row{bob.uid, 0, 0577, 1, 0, "delete (owner) permission denied '"}}) {
        ASSERT_EQ(chown(folder.path.c_str(), expected.owner, expected.group), 0);
        ASSERT_EQ(chmod(folder.path.c_str(), expected.mode), 0);
        EXPECT_EQ(CheckFileAccess_Pw(file.c_str(), ann.name.c_str(), FILE_ACCESS_REMOVE, &anns, nullptr),
                  expected.ann)
            << std::oct << expected.mode;
        EXPECT_EQ(CheckFileAccess_Pw(file.c_str(), bob.name.c_str(), FILE_ACCESS_REMOVE, &bobs, &text),
                  expected.bob)
            << std::oct << expected.mode;
        if (expected.bob == 0) {
            EXPECT_EQ(text, expected.text + file + "'");
        }
    }
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    EXPECT_EQ(ReadFileAuthority(bob.name.c_str(), file.c_str(), 1, nullptr, &text), 1) << "by membership";
    EXPECT_EQ(uicFileAuthority(bob.name.c_str(), file.c_str(), FILE_ACCESS_WRITE, 1, &bobs, &text), 0);
    EXPECT_EQ(text, "Permission denied");
    EXPECT_EQ(uicFileAuthority(bob.name.c_str(), file.c_str(), FILE_ACCESS_WRITE, 0, &bobs, &text), 1);
}

}  // namespace
