#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "agent/listener.h"
#include "agent/logon.h"
#include "agent/server_connection.h"
#include "agent/setting_table.h"
#include "agent/signals.h"
#include "agent_fixture.h"
#include "base/profile.h"
#include "identity/pam.h"
#include "identity/switch_user.h"
#include "security/key_store.h"

namespace {

TEST(settings, reads_sizes_with_their_suffix) {
    EXPECT_EQ(settings_size_value("1048576"), 1048576);
    EXPECT_EQ(settings_size_value("4K"), 4096);
    EXPECT_EQ(settings_size_value("2m"), 2097152);
    EXPECT_EQ(settings_size_value("9999999999M"), INT_MAX);
    EXPECT_EQ(settings_size_value("-5K"), 0);
    EXPECT_EQ(settings_size_value("much"), 0);

    EXPECT_EQ(settings_ft_message_size("31K"), 31744);
    EXPECT_EQ(settings_ft_message_size("32K"), 32256);
    EXPECT_EQ(settings_ft_message_size("1K"), 32256);
    EXPECT_EQ(settings_ft_message_size("4096"), 4096);
    EXPECT_EQ(settings_ft_message_size("4095"), 32256);

    EXPECT_EQ(settings_compress_size("10"), 10);
    EXPECT_EQ(settings_compress_size("20480K"), 20);
    EXPECT_EQ(settings_compress_size("7M"), 7);
}

TEST(settings, reads_languages_and_the_listener_port) {
    char first;
    char second;
    const std::pair<const char*, std::string> cases[] = {{"(E,D)", "ED"}, {"( d , e )", "DE"},
                                                         {"f", "FD"},     {"", "ED"},
                                                         {",x", "EX"},    {"deutsch,english", "DE"}};
    for (const auto& [text, expected] : cases) {
        settings_languages(text, &first, &second);
        EXPECT_EQ((std::string{first, second}), expected) << text;
    }
    struct port_case {
        const char* text;
        int port;
        const char* address;
    };
    const port_case rows[] = {{"2300", 2300, ""},        {"10.0.0.1:2300", 2300, "10.0.0.1"},
                              {"[::1]:77", 77, "[::1]"}, {"", 0, ""},
                              {"70000", 0, ""},          {"-1", 0, ""}};
    for (const port_case& one : rows) {
        char address[64];
        EXPECT_EQ(settings_listener_port(one.text, address, sizeof address), one.port) << one.text;
        EXPECT_STREQ(address, one.address);
    }
}

TEST(settings, the_period_of_connecting_has_an_older_name) {
    struct period_case {
        const char* lines;
        int reconnect;
    };
    for (const period_case& one :
         {period_case{"", 60}, {"alarm=90\n", 90}, {"connect=0\nalarm=45\n", 45}, {"connect=7\n", 7}}) {
        installed_agent agent;
        agent.sections += std::string("[TCP/IP]\n") + one.lines;
        ASSERT_NE(agent.init(), nullptr);
        ASSERT_EQ(agent.error.qx_msgnr, 0) << agent.error.qx_msgInsert;
        EXPECT_EQ(agent.pcx->Per_Reconnect, one.reconnect) << one.lines;
    }
}

TEST(settings, makes_a_context_with_its_folders) {
    installed_agent agent;
    mkdir((agent.folder / "out").c_str(), 0700);  // exists already, and is shared all the same
    ASSERT_NE(agent.init(), nullptr);
    ASSERT_EQ(agent.error.qx_msgnr, 0) << agent.error.qx_msgInsert;
    EXPECT_STREQ(agent.pcx->exName, "AGENT1");
    EXPECT_STREQ(agent.pcx->sysName, "TESTSYS");
    const std::string base = std::filesystem::canonical(agent.folder.path);
    EXPECT_EQ(agent.pcx->pcx_TmpFolder, base + "/temp");
    EXPECT_EQ(agent.pcx->pcx_OutFolder, base + "/out");
    EXPECT_EQ(agent.pcx->pcx_rb_dir, base + "/backup");
    for (const char* folder : {"temp", "out"}) {
        struct stat status;
        ASSERT_EQ(stat((agent.folder / folder).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 01777u) << folder;
    }
    EXPECT_TRUE(std::filesystem::exists(agent.folder / "temp/QXXJxxx.l00"));
    EXPECT_EQ(agent.pcx->ExecutorStatus, geteuid() == 0 ? EXECUTOR_PRIVILEGED : EXECUTOR_UNPRIVILEGED);
    EXPECT_EQ(agent.pcx->connwait, 20);
}

// What the agent takes back after work under another user: exactly its own groups, and nothing that stands
// behind.
TEST(settings, keep_the_groups_of_the_agent_over_work_under_another_user) {
    installed_agent agent;
    ASSERT_NE(agent.init(), nullptr);
    ASSERT_EQ(agent.error.qx_msgnr, 0) << agent.error.qx_msgInsert;
    const gid_t* list = agent.pcx->pcx_run_gid_tab;
    const gid_t* end = std::find(std::begin(agent.pcx->pcx_run_gid_tab), std::end(agent.pcx->pcx_run_gid_tab),
                                 static_cast<gid_t>(-1));
    ASSERT_NE(end, std::end(agent.pcx->pcx_run_gid_tab)) << "the list has an end";
    EXPECT_EQ(list[0], getegid());
    EXPECT_EQ(end - list, agent.pcx->pcx_gid_nr + 1);
    const auto groups_now = [] {
        std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
        EXPECT_EQ(getgroups(static_cast<int>(groups.size()), groups.data()), static_cast<int>(groups.size()));
        return groups;
    };
    const std::vector<gid_t> before = groups_now();
    EXPECT_EQ(std::vector<gid_t>(list + 1, end), before);
    if (!runs_as_root()) {
        return;
    }
    {
        qx7_error error;
        effective_user other("nobody", &error);
        ASSERT_TRUE(other.ok()) << error.qx_msgInsert;
        EXPECT_NE(geteuid(), 0u);
    }
    EXPECT_EQ(groups_now(), before);
    EXPECT_EQ(geteuid(), 0u);
    EXPECT_EQ(getegid(), list[0]);
}

struct broken_case {
    const char* what;
    const char* sections;
    int number;
    const char* key;  // that the explanation names
};

TEST(settings, names_the_setting_that_stops_the_start) {
    const std::string name33(33, 'n');
    const std::string name32(32, 'n');
    const std::string system = "[GLOBAL]\nsystem=s\nname=a\n";
    const std::string long_name = "[GLOBAL]\nsystem=s\nname=" + name33 + "\n[VARIABLES]\nQX_EX_JOB_MD=m\n";
    const std::string bad_library = system + "helplib=./missing.msl\n";
    const std::string messenger = system + "[VARIABLES]\nQX_EX_JOB_MD=" + std::string(129, 'm') + "\n";
    const std::string in_file = system + "[VARIABLES]\nQX_EX_JOB_MD=m\n";
    const std::string bad_temp = in_file + "QX_EX_PATH_TEMP=./qxxjlnx/below\n";
    const std::string bad_backup = in_file + "QX_EX_PATH_BACKUP=./qxxjlnx/below\n";
    const std::string bad_log = system + "logging=./qxxjlnx/below/log\n[VARIABLES]\nQX_EX_JOB_MD=m\n";
    for (const broken_case& one :
         std::vector<broken_case>{{"no system", "[GLOBAL]\nname=a\n", 2000024, "'system'"},
                                  {"name of 33 characters", long_name.c_str(), 2000024, "'name'"},
                                  {"no messenger", system.c_str(), 2000024, "'QX_EX_JOB_MD'"},
                                  {"messenger too long", messenger.c_str(), 2000024, "'QX_EX_JOB_MD'"},
                                  {"library missing", bad_library.c_str(), 2003041, "'helplib'"},
                                  {"temp below a file", bad_temp.c_str(), 2003041, "'QX_EX_PATH_TEMP'"},
                                  {"backup below a file", bad_backup.c_str(), 2003041, "'QX_EX_PATH_BACKUP'"},
                                  {"log below a file", bad_log.c_str(), 2003041, "'logging'"}}) {
        installed_agent agent;
        agent.sections = one.sections;
        ASSERT_NE(agent.init(), nullptr) << one.what;
        EXPECT_EQ(agent.error.qx_msgnr, one.number) << one.what << agent.error.qx_msgInsert;
        char* text = nullptr;
        size_t size = 0;
        FILE* out = open_memstream(&text, &size);
        settings_explain(agent.pcx, agent.error, out);
        fclose(out);
        EXPECT_NE(std::string(text).find(one.key), std::string::npos) << text;
        free(text);
    }
    installed_agent agent;
    agent.sections =
        "[GLOBAL]\nsystem=s\nname=" + name32 + "\n[VARIABLES]\nQX_EX_JOB_MD=m\nQX_EX_PATH_CACHE=../r\n";
    agent.init();
    EXPECT_EQ(agent.error.qx_msgnr, 0) << "32 characters pass: " << agent.error.qx_msgInsert;
}

TEST(settings, turns_signals_on_and_off) {
    installed_agent agent;
    agent.sections += "[GLOBAL]\n";
    agent.sections.insert(9, "sigterm=no\nsigio=yes\n");
    ASSERT_NE(agent.init(), nullptr);
    const int bits = signal_read_settings(agent.pcx);
    const auto on = [&](int number) { return (bits >> number & 1) != 0; };
    EXPECT_FALSE(on(SIGTERM));
    EXPECT_TRUE(on(SIGCHLD));
    EXPECT_TRUE(on(SIGIO));
    EXPECT_TRUE(on(SIGALRM)) << "together with sigio";
    EXPECT_FALSE(on(SIGINT));
    EXPECT_TRUE(on(SIGUSR1));
    EXPECT_TRUE(on(SIGHUP));
    EXPECT_FALSE(on(SIGKILL)) << "its place tells a pending SIGHUP";
    EXPECT_EQ(bits & (SIGNAL_PENDING_CHILD | SIGNAL_PENDING_TERM), 0);
}

// ---- every setting stands in the table and on the page

// Section and key, and the presets that the readers pass.
std::map<std::pair<std::string, std::string>, std::set<std::string>> settings_read;

void watch(const char* section, const char* key, const char* preset) {
    static const std::set<std::string> lists = {"CP_LIST", "USERID", "QX_USER"};
    if (key != nullptr && *key != '\0' && lists.count(section) == 0) {
        settings_read[{section, key}].insert(preset == nullptr ? "" : preset);
    }
}

std::string whole_file(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void read_what_the_source_names() {
    const std::regex pair(R"re(Profile(?:String|Int|Bool)\(\s*\w+,\s*"([A-Z_/]+)",\s*"([^"]+)")re");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(QX_SOURCE_DIR "/src")) {
        if (entry.path().extension() != ".cpp") {
            continue;
        }
        const std::string text = whole_file(entry.path());
        for (std::sregex_iterator at(text.begin(), text.end(), pair), end; at != end; ++at) {
            watch((*at)[1].str().c_str(), (*at)[2].str().c_str(), "");
        }
    }
}

TEST(settings, are_all_in_the_table_and_on_the_page) {
    settings_read.clear();
    installed_agent agent;
    agent.sections +=
        "[TCP/IP]\ncp=localhost:1\n[MISC]\nauthentication=PAM\n[PAM]\nlibname=/"
        "nowhere\npam_open_session=yes\n"
        "[STARTCMD]\nstart_type=batch\n";
    profile_read_watch = watch;
    ASSERT_NE(agent.init(), nullptr);
    ASSERT_EQ(agent.error.qx_msgnr, 0) << agent.error.qx_msgInsert;
    signal_read_settings(agent.pcx);
    qx7_error error;
    listener_read_config(agent.pcx, &error);
    get_main_cp_port(agent.pcx);
    std::string list;
    CreateExStartVar(agent.pcx, &list);
    BindPamDll();  // fails, having read its settings
    GssOpen(&error);
    profile_read_watch = nullptr;
    read_what_the_source_names();

    EXPECT_GT(settings_read.size(), 90u);
    for (const auto& [setting, presets] : settings_read) {
        const auto& [section, key] = setting;
        const known_setting* row = find_setting(section, key);
        ASSERT_TRUE(row != nullptr && row->key == key)
            << section << "/" << key << " is read but setting_table.cpp has no row for it";
        for (const std::string& preset : presets) {
            EXPECT_TRUE(row->preset.empty() || preset.empty() || preset == row->preset)
                << section << "/" << key << " is read with the default " << preset << ", the table says "
                << row->preset;
        }
    }
    const std::string page = whole_file(QX_SOURCE_DIR "/docs/configuration.md");
    std::set<std::string> names;
    for (const known_setting& row : all_settings()) {
        const std::string name = std::string(row.section) + "/" + std::string(row.key);
        names.insert(name);
        EXPECT_TRUE(row.key == "*" || page.find("| `" + name + "` |") != std::string::npos)
            << name << " is known but docs/configuration.md does not list it";
    }
    const std::regex cell(R"re(\n\| `([A-Z_/0-9]+/[^`]+)` \|)re");
    for (std::sregex_iterator at(page.begin(), page.end(), cell), end; at != end; ++at) {
        EXPECT_EQ(names.count((*at)[1].str()), 1u) << (*at)[1] << " stands on the page and is not known";
    }
}

}  // namespace
