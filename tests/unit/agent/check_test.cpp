// `qxxjlnx check`, `qxxjlnx encipher`, and the warnings of the start.
#include "agent/check.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "agent/encipher.h"
#include "agent/instance_lock.h"
#include "agent/start_warnings.h"
#include "agent_fixture.h"
#include "base/descriptor.h"
#include "loopback.h"
#include "security/key_store.h"
#include "security/string_cipher.h"

namespace {

namespace fs = std::filesystem;

// A loopback socket that listens, as a server process or as somebody who holds the port.
struct listening_socket {
    int port = 0;
    qx_descriptor socket_{listen_on_loopback(&port)};
};

struct check_test : testing::Test {
    installed_agent agent;
    listening_socket server;
    int result = -1;

    check_test() {
        const int port = server.port;
        agent.sections =
            "[GLOBAL]\nsystem=s\nname=agent1\nhardened=yes\n[VARIABLES]\nQX_EX_JOB_MD=./qxxjlnx\n"
            "QX_EX_PATH_CACHE=../res\n[TCP/IP]\ncp=127.0.0.1:" +
            std::to_string(port) + "\nbindaddr=127.0.0.1\n[AUTHORIZATION]\nKeyStore=K.ini\n";
        chmod(agent.program().c_str(), 0755);
    }
    std::string run() {
        std::ofstream(agent.ini()) << agent.sections;
        char* text = nullptr;
        size_t size = 0;
        FILE* out = open_memstream(&text, &size);
        result = check_command(agent.ini().c_str(), agent.program().c_str(), out);
        fclose(out);
        std::string said(text);
        free(text);
        return said;
    }
    void replace(const std::string& what, const std::string& with) {
        const size_t at = agent.sections.find(what);
        ASSERT_NE(at, std::string::npos) << what;
        agent.sections.replace(at, what.size(), with);
    }
};

TEST_F(check_test, finds_nothing_failed_in_a_good_installation_and_changes_nothing) {
    const std::string said = run();
    EXPECT_EQ(result, 0) << said;
    EXPECT_EQ(said.find("FAILED"), std::string::npos) << said;
    for (const char* subject :
         {"settings", "safety", "message library", "job files", "reports", "backups", "resources",
          "log folder", "job messenger", "keys", "listener user", "port", "server"}) {
        EXPECT_NE(said.find(std::string("  ") + subject), std::string::npos) << subject << said;
    }
    EXPECT_FALSE(fs::exists(agent.folder / "temp"));
    EXPECT_FALSE(fs::exists(agent.folder / "bin/K.ini"));
}

TEST_F(check_test, tells_each_thing_that_would_fail) {
    struct spoiled {
        const char* what;
        const char* with;
        const char* told;
    };
    const std::string good = agent.sections;
    const listening_socket holder;
    int closed_port = 0;
    { closed_port = listening_socket().port; }
    const std::string taken = "bindaddr=127.0.0.1\nport=" + std::to_string(holder.port);
    const std::string cp = "cp=127.0.0.1:" + std::to_string(server.port);
    const std::string dead = "cp=127.0.0.1:" + std::to_string(closed_port);
    for (const spoiled& one : {spoiled{"hardened=yes", "hardend=yes", "hardend is no key"},
                               {"hardened=yes", "hardened=ja", "'ja' is not yes or no"},
                               {"system=s", "system=", "GLOBAL/system must be a name"},
                               {"name=agent1", "helplib=./none.msl", "message library   '"},
                               {"./qxxjlnx", "./none", "is no program that can be run"},
                               {"../res", "./qxxjlnx/below", "qxxjlnx' is no folder"},
                               {"bindaddr=127.0.0.1", taken.c_str(), "Address already in use"},
                               {cp.c_str(), dead.c_str(), "Connection refused"},
                               {"KeyStore=K.ini", "first_contact=no", "no server can log this agent on"},
                               {"KeyStore=K.ini", "[MISC]\nauthentication=PAM\n[PAM]\nlibname=./none.so",
                                "'./none.so' cannot be loaded"}}) {
        agent.sections = good;
        replace(one.what, one.with);
        const std::string said = run();
        EXPECT_EQ(result, 1) << one.with << said;
        const size_t at = said.find(one.told);
        ASSERT_NE(at, std::string::npos) << one.told << said;
        EXPECT_EQ(said.compare(said.rfind('\n', at) + 1, 6, "FAILED"), 0) << said;
    }
}

TEST_F(check_test, the_port_of_its_own_running_agent_is_good) {
    const listening_socket holder;
    replace("bindaddr=127.0.0.1", "bindaddr=127.0.0.1\nport=" + std::to_string(holder.port));
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        pid_t other = 0;
        const bool taken = instance_lock(agent.ini().c_str(), &other) == instance_lock_taken;
        if (!taken || write(ready[1], "x", 1) != 1) {
            _exit(1);
        }
        pause();
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    const std::string said = run();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(result, 0) << said;
    EXPECT_NE(said.find("is in use by this agent, process " + std::to_string(child)), std::string::npos)
        << said;
    run();
    EXPECT_EQ(result, 1) << "the lock file alone says nothing";
}

TEST_F(check_test, says_which_of_the_three_kinds_of_keys_is_used) {
    EXPECT_NE(run().find("warning  keys              derived company key"), std::string::npos);
    initial_package package;
    package.name = "AGENT1";
    package.company_key.data()[0] = 1;
    package.transfer_key.data()[0] = 2;
    std::ofstream(agent.folder / "bin/a.pkg") << build_initial_package(package, "");
    agent.sections += "InitialPackage=a.pkg\n";
    EXPECT_NE(run().find("ok       keys              initial package 'a.pkg', which the next start reads"),
              std::string::npos);
    key_manager keys;
    ASSERT_EQ(KM_OK, KComInit(&keys, "S", "AGENT1", {}, agent.folder / "bin/K.ini"));
    const std::string bytes = build_initial_package(package, "");
    ASSERT_EQ(KM_OK, ImportKey(&keys, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, ""));
    const std::string key = "transfer key " + key_fingerprint(package.transfer_key.data());
    EXPECT_NE(run().find("ok       keys              initial package; " + key), std::string::npos) << run();
    replace("InitialPackage=a.pkg\n", "first_contact=no\n");
    const std::string own = run();
    EXPECT_NE(own.find("ok       keys              own company key; " + key + "\n"), std::string::npos)
        << own;
}

TEST(start_warnings, name_what_others_can_change_and_what_is_not_hardened) {
    installed_agent agent;
    agent.sections.insert(std::string("[GLOBAL]\n").size(), "hardened=yes\n");
    testing::internal::CaptureStderr();
    ASSERT_NE(agent.init(), nullptr);
    const std::string quiet = testing::internal::GetCapturedStderr();
    EXPECT_EQ(quiet.find("warning"), std::string::npos) << quiet;
    EXPECT_NE(
        quiet.find("its log is '" + std::string(fs::canonical(agent.folder / "temp")) + "/QXXJxxx.l00'"),
        std::string::npos)
        << quiet;
    struct open_path {
        const char* path;
        mode_t mode;
        const char* told;
    };
    for (const open_path& one : {open_path{"bin", 0777, "may be written by everybody"},
                                 {"bin", 01777, "may be written by everybody"},
                                 {"bin/qxxjlnx.ini", 0646, "may be written by everybody"},
                                 {"bin/qxxjlnx", 0757, "may be written by everybody"},
                                 {"", 0777, "may be written by everybody"},
                                 {"", 01777, nullptr}}) {
        const std::string path = agent.folder / one.path;
        struct stat before;
        ASSERT_EQ(stat(path.c_str(), &before), 0);
        ASSERT_EQ(chmod(path.c_str(), one.mode), 0);
        const std::vector<std::string> warnings = start_warnings(agent.pcx);
        chmod(path.c_str(), before.st_mode & 07777);
        ASSERT_EQ(warnings.size(), one.told == nullptr ? 0u : 1u) << one.path;
        if (one.told != nullptr) {
            EXPECT_NE(warnings[0].find(one.told), std::string::npos) << warnings[0];
        }
    }
    agent.pcx->pcx_hardened = 0;
    ASSERT_EQ(start_warnings(agent.pcx).size(), 1u);
    EXPECT_NE(start_warnings(agent.pcx)[0].find("write hardened = yes"), std::string::npos);
}

TEST(start_warnings, stand_on_standard_error_and_in_the_log) {
    installed_agent agent;
    testing::internal::CaptureStderr();
    ASSERT_NE(agent.init(), nullptr);
    const std::string said = testing::internal::GetCapturedStderr();
    for (const std::string& text : {said, agent.log_text()}) {
        EXPECT_NE(text.find("warning: GLOBAL/hardened is off"), std::string::npos) << text;
    }
}

TEST(encipher, gives_a_text_that_settings_read_back) {
    const auto enciphered = [](const std::string& input, int expected) {
        FILE* in = tmpfile();
        fputs(input.c_str(), in);
        rewind(in);
        char* text = nullptr;
        size_t size = 0;
        FILE* out = open_memstream(&text, &size);
        FILE* messages = fopen("/dev/null", "w");
        EXPECT_EQ(encipher_command(in, out, messages), expected) << input;
        fclose(in);
        fclose(out);
        fclose(messages);
        std::string result(text, size);
        free(text);
        return result;
    };
    for (const std::string& text :
         {std::string("pass word=1"), std::string("x"), std::string(62, 'p'), std::string(100, 'q')}) {
        std::string line = enciphered(text + "\n", 0);
        ASSERT_TRUE(line.ends_with("\n"));
        line.pop_back();
        EXPECT_EQ(line.find(text), std::string::npos);
        EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) { return c > 32 && c < 127; })) << line;
        EXPECT_LT(("smtp_password = " + line).size(), 257u);
        char plain[256];
        ASSERT_EQ(ZUSTRNG_DeMaxim(plain, sizeof plain, line.c_str()), 0);
        EXPECT_EQ(plain, text);
    }
    for (const std::string& text : {std::string(), std::string("\n"), std::string(101, 'q')}) {
        EXPECT_EQ(enciphered(text, 1), "");
    }
}

TEST(encipher, a_terminal_does_not_show_what_is_typed) {
    const qx_descriptor screen(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    char name[64];
    ASSERT_TRUE(screen.valid() && grantpt(screen.get()) == 0 && unlockpt(screen.get()) == 0);
    ASSERT_EQ(ptsname_r(screen.get(), name, sizeof name), 0);
    const qx_descriptor keys(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(keys.valid());
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        FILE* in = fdopen(keys.get(), "r");
        FILE* messages = fopen(name, "we");
        FILE* out = fopen("/dev/null", "we");
        setvbuf(messages, nullptr, _IONBF, 0);  // as standard error
        const int code = encipher_command(in, out, messages);
        fputs("the end", messages);
        _exit(code);
    }
    std::string shown;
    const auto read_until = [&](const char* text) {
        char part[256];
        ssize_t length = 0;
        while (shown.find(text) == std::string::npos &&
               (length = read(screen.get(), part, sizeof part)) > 0) {
            shown.append(part, static_cast<size_t>(length));
        }
    };
    read_until("it is not shown");
    ASSERT_EQ(write(screen.get(), "s3cret\n", 7), 7);
    read_until("the end");
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(shown.find("s3cret"), std::string::npos) << shown;
    termios after;
    ASSERT_EQ(tcgetattr(keys.get(), &after), 0);
    EXPECT_NE(after.c_lflag & ECHO, 0U) << "the next command's typing is shown again";
}

}  // namespace
