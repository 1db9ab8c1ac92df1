#include "base/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "base/descriptor.h"
#include "base/file_data.h"
#include "base/paths.h"
#include "scratch.h"

TEST(NewFile, NeverFollowsALinkOrKeepsAnOldFile) {
    scratch dir;
    dir.write("victim", "precious");
    ASSERT_EQ(symlink(dir.at("victim").c_str(), dir.at("log").c_str()), 0);
    qx_descriptor file(create_new_file(dir.at("log").c_str(), 0640, getuid(), getgid(), nullptr));
    ASSERT_TRUE(file.valid());
    EXPECT_EQ(dir.read("victim"), "precious");
    struct stat status;
    ASSERT_EQ(lstat(dir.at("log").c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
    // A second creation makes another file: whoever holds the first one open doesn't see it.
    qx_descriptor second(create_new_file(dir.at("log").c_str(), 0600, getuid(), getgid(), nullptr));
    struct stat other;
    ASSERT_EQ(fstat(second.get(), &other), 0);
    EXPECT_NE(status.st_ino, other.st_ino);
}

TEST(NewFile, LeavesOtherKindsAloneAndTellsTheStep) {
    scratch dir;
    ASSERT_EQ(mkfifo(dir.at("pipe").c_str(), 0600), 0);
    const char* step = nullptr;
    EXPECT_EQ(create_new_file(dir.at("pipe").c_str(), 0600, getuid(), getgid(), &step), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_STREQ(step, "FileCreate()");
    EXPECT_TRUE(dir.exists("pipe"));
    if (geteuid() != 0) {
        EXPECT_EQ(create_new_file(dir.at("mine").c_str(), 0600, 0, 0, &step), -1);
        EXPECT_STREQ(step, "chown");
        EXPECT_FALSE(dir.exists("mine")) << "what could not be finished must not stay";
    }
}

TEST(OpenRegular, TakesNothingElse) {
    scratch dir;
    dir.write("file", "text");
    ASSERT_EQ(mkfifo(dir.at("pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("file", dir.at("link").c_str()), 0);
    EXPECT_EQ(open_regular_at(AT_FDCWD, dir.at("pipe").c_str(), O_RDONLY), -1)
        << "must not wait for a writer";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(open_regular_at(AT_FDCWD, dir.at("link").c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(open_regular_at(AT_FDCWD, dir.at("").c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(open_regular_at(AT_FDCWD, dir.at("missing").c_str(), O_RDWR | O_CREAT), -1);
    EXPECT_FALSE(dir.exists("missing"));
    EXPECT_EQ(open_regular_at(AT_FDCWD, "/dev/null", O_RDONLY), -1);
    qx_descriptor file(open_regular_at(AT_FDCWD, dir.at("file").c_str(), O_RDONLY));
    ASSERT_TRUE(file.valid());
    EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_NONBLOCK, 0);
    qx_descriptor linked(FileOpenRead(dir.at("link").c_str()));
    EXPECT_TRUE(linked.valid());
}

TEST(Removal, TouchesFilesAndLinksOnly) {
    scratch dir;
    dir.write("file", "text");
    ASSERT_EQ(symlink("file", dir.at("link").c_str()), 0);
    ASSERT_EQ(mkfifo(dir.at("pipe").c_str(), 0600), 0);
    EXPECT_EQ(FileRemove(dir.at("link").c_str()), 0);
    EXPECT_TRUE(dir.exists("file"));
    EXPECT_EQ(FileRemove(dir.at("pipe").c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(FileRemove("/dev/null"), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(FileRemove(dir.path.c_str()), -1);
}

TEST(Removal, OfATreeStaysInTheTree) {
    scratch dir;
    dir.write("outside", "precious");
    qx7_error error;
    ASSERT_EQ(create_Dir(dir.at("tree/a/b").c_str(), &error), 0);
    dir.write("tree/a/b/file", "x");
    ASSERT_EQ(symlink(dir.path.c_str(), dir.at("tree/a/up").c_str()), 0);
    ASSERT_EQ(symlink(dir.path.c_str(), dir.at("treelink").c_str()), 0);
    EXPECT_EQ(remove_all(dir.at("treelink").c_str(), &error), -1);
    EXPECT_EQ(error.qx_msgnr, 2003041);
    EXPECT_EQ(remove_all((dir.at("tree") + "/").c_str(), &error), 0);
    EXPECT_FALSE(dir.exists("tree"));
    EXPECT_EQ(dir.read("outside"), "precious");

    ASSERT_EQ(create_Dir(dir.at("flat").c_str(), &error), 0);
    dir.write("flat/1", "");
    dir.write("flat/2", "");
    EXPECT_EQ(remove_allDirfiles(dir.at("flat").c_str(), &error), 2);
    ASSERT_EQ(create_Dir(dir.at("flat/sub").c_str(), &error), 0);
    EXPECT_EQ(remove_allDirfiles(dir.at("flat").c_str(), &error), -1);
    const std::string insert = "GetStatBuf(S_ISDIR)|" + dir.at("flat/sub") + "|21|directory was found|";
    EXPECT_EQ(error.qx_msgInsert, insert);
}

TEST(Directories, GetTheirModeWhateverTheUmask) {
    scratch dir;
    qx7_error error;
    const mode_t old = umask(0077);
    ASSERT_EQ(create_Dir(dir.at("kept").c_str(), &error), 0);
    EXPECT_EQ(create_Dir_Mode(dir.at("kept/a/b/").c_str(), 0775, &error), 0);
    umask(old);
    struct stat status;
    ASSERT_EQ(stat(dir.at("kept/a/b").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0775U);
    ASSERT_EQ(stat(dir.at("kept").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U) << "an existing level keeps its mode";
    dir.write("file", "");
    EXPECT_NE(create_Dir_Mode(dir.at("file/a").c_str(), 0775, &error), 0);
    EXPECT_EQ(error.qx_errno, ENOTDIR);
    EXPECT_EQ(error.qx_msgInsert, dir.at("file/a"));
}

TEST(Kinds, AreLettersAndFailuresHaveTheirInserts) {
    scratch dir;
    dir.write("file", "12345");
    ASSERT_EQ(symlink("nowhere", dir.at("dangling").c_str()), 0);
    qx7_error error;
    EXPECT_EQ(getFileType(dir.path.c_str(), &error), FILE_KIND_DIRECTORY);
    EXPECT_EQ(getFileType("/dev/null", &error), FILE_KIND_CHARACTER);
    EXPECT_EQ(getFileType("", &error), FILE_KIND_NONE);
    EXPECT_EQ(std::string(error.qx_msgInsert).find("getFileType parametererror|NULL/0|"), 0U);
    EXPECT_EQ(getFileType(dir.at("dangling").c_str(), &error), FILE_KIND_NONE);
    EXPECT_EQ(error.qx_msgInsert, "fileExists|" + dir.at("dangling") + "|2|" + strerror(2) + "|");
    EXPECT_EQ(getFileTypeIgnoreErrors(dir.at("dangling").c_str(), "dang*", &error, false), FILE_KIND_NONE);
    EXPECT_EQ(error.qx_msgnr, 0);
    getFileTypeIgnoreErrors(dir.at("dangling").c_str(), "x*", &error, false);
    EXPECT_EQ(error.qx_msgnr, 2003041);
    getFileTypeIgnoreErrors(dir.at("dangling").c_str(), "dang*", &error, true);
    EXPECT_EQ(error.qx_msgnr, 2003041);
}

TEST(Catalogue, TellsRightsAndNames) {
    scratch dir;
    dir.write("file", "12345");
    ASSERT_EQ(chmod(dir.at("file").c_str(), 04654), 0);
    static FILE_CAT catalogue;
    GetFileCatalog("file", 0, CATALOGUE_ALL, dir.path.c_str(), &catalogue);
    EXPECT_EQ(catalogue.fc_errno, 0);
    EXPECT_EQ(catalogue.fc_mode, '-');
    EXPECT_EQ(catalogue.fc_size, 5);
    EXPECT_EQ(catalogue.fc_usr_exec, 'S');
    EXPECT_EQ(catalogue.fc_grp_exec, 'x');
    EXPECT_EQ(catalogue.fc_all_write, '-');
    EXPECT_EQ(catalogue.fc_usr_delete, '-');
    EXPECT_STREQ(catalogue.fc_DateiName, "file");
    EXPECT_EQ(catalogue.fc_FolderName, dir.path);
    GetFileCatalog(nullptr, 0, CATALOGUE_ALL, nullptr, &catalogue);
    EXPECT_EQ(catalogue.fc_errno, 65535);
    GetFileCatalog("none", 0, CATALOGUE_ALL, dir.path.c_str(), &catalogue);
    EXPECT_EQ(catalogue.fc_errno, ENOENT);
    EXPECT_EQ(std::string(catalogue.fc_rettext).find("GetStatBuf()|/tmp/"), 0U);
}

TEST(Paths, AreCompletedAgainstExistingDirectories) {
    scratch dir;
    char out[4096];
    EXPECT_EQ(GetFilePfad("name", dir.path.c_str(), out, sizeof out), 0);
    EXPECT_EQ(out, dir.at("name"));
    EXPECT_EQ(GetFilePfad("", "/base", out, sizeof out), 0);
    EXPECT_STREQ(out, "/base/");
    EXPECT_EQ(GetFilePfad("/a/b", "/base", out, sizeof out), 0);
    EXPECT_STREQ(out, "/a/b");
    EXPECT_EQ(GetFilePfad("none/name", dir.path.c_str(), out, sizeof out), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(GetFilePfad("/abcdef", "/", out, 7), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(GetFilePfad(("/" + std::string(4095, 'a')).c_str(), "/", out, sizeof out), -1);
    qx7_error error;
    ASSERT_EQ(symlink(dir.path.c_str(), dir.at("link").c_str()), 0);
    EXPECT_EQ(createUnixPath(dir.path.c_str(), "link", out, &error), 0);
    EXPECT_EQ(out, dir.path);
    EXPECT_EQ(createUnixPath(dir.path.c_str(), "link/none", out, &error), 0);
    EXPECT_EQ(out, dir.at("link/none"));
    EXPECT_EQ(path_clean("//a//./b/"), "/a/b");
}

// In a child: what stays open is what was asked for.
TEST(Descriptors, AllButTheKeptAreClosed) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int a = open("/dev/null", O_RDONLY);
        const int b = dup2(a, 200);
        const int c = dup2(a, 201);
        const int keep[] = {b, a};
        AllFdClose(3, keep, 2);
        const bool good = fcntl(a, F_GETFD) >= 0 && fcntl(b, F_GETFD) >= 0 && fcntl(c, F_GETFD) < 0 &&
                          fcntl(2, F_GETFD) >= 0;
        _exit(good ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

TEST(Streams, LinesMayHoldNulBytesAndBeTooLong) {
    scratch dir;
    dir.write("text", std::string("a\0b\n0123456789\n\nlast", 20));
    qx_stream stream(FileFOpen(dir.at("text").c_str(), "r"));
    char line[8];
    EXPECT_EQ(FileReadText(stream.get(), line, sizeof line, nullptr, 0), 3);
    EXPECT_EQ(memcmp(line, "a\0b", 4), 0);
    EXPECT_EQ(FileReadText(stream.get(), line, sizeof line, nullptr, 0), 10);
    EXPECT_STREQ(line, "0123456");
    EXPECT_EQ(FileReadText(stream.get(), line, sizeof line, nullptr, 0), 0);
    EXPECT_EQ(ReadFgetS(stream.get(), line, sizeof line, nullptr, 0), 4);
    EXPECT_EQ(ReadFgetS(stream.get(), line, sizeof line, nullptr, 0), read_end_of_file);
    FileSeekReset(stream.get());
    EXPECT_EQ(ReadFgetS(stream.get(), line, 3, nullptr, 0), read_line_too_long);
    // A directory can be opened but not read.
    qx_stream directory(FileFOpen(dir.path.c_str(), "r"));
    char text[128];
    EXPECT_EQ(ReadFgetS(directory.get(), line, sizeof line, text, sizeof text), read_failed);
    EXPECT_EQ(std::string(text), std::string("ReadFgetS - ") + strerror(EISDIR));
}

TEST(Streams, AFullDiskIsTold) {
    qx_stream full(fopen("/dev/full", "w"));
    ASSERT_TRUE(full.valid());
    setvbuf(full.get(), nullptr, _IONBF, 0);
    qx7_error error;
    EXPECT_EQ(FcbWriteText(full.get(), "line", -1, &error), -1);
    EXPECT_EQ(error.qx_errno, ENOSPC);
    EXPECT_EQ(error.qx_msgInsert,
              std::string("FcbPutsText     error '") + strerror(ENOSPC) + "' in fputs() call");
}
