#include "agent/settings_check.h"

#include <algorithm>

#include "agent/setting_table.h"
#include "base/context.h"
#include "base/descriptor.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/profile.h"
#include "base/text.h"
#include "log/log.h"

namespace {

constexpr char page[] = "docs/configuration.md lists all";

struct seen_name {
    std::string section;
    std::string key;  // empty: the section itself
    int line;
};

// What the walk through the file knows.
struct file_walk {
    std::vector<setting_fault> faults;
    std::vector<seen_name> seen;
    std::string section;
    int line = 0;
    bool known = false;   // the section
    bool passed = false;  // it stood in the file before, so nothing of it is read
};

void add_fault(file_walk* walk, std::string_view key, const std::string& text, bool ends_start = false) {
    walk->faults.push_back({walk->line, walk->section, std::string(key), text, ends_start});
}

// The line where the name stood first; 0 when it is new, and then remembered.
int seen_before(file_walk* walk, std::string_view key) {
    for (const seen_name& name : walk->seen) {
        if (equal_ignore_case(name.section, walk->section) && equal_ignore_case(name.key, key)) {
            return name.line;
        }
    }
    walk->seen.push_back({walk->section, std::string(key), walk->line});
    return 0;
}

std::string quoted(std::string_view text) {
    return "'" + printable(text) + "'";
}

void enter_section(file_walk* walk, std::string_view name) {
    walk->section = name;
    walk->known = is_known_section(name);
    const int before = seen_before(walk, "");
    walk->passed = before != 0;
    if (walk->passed) {
        add_fault(walk, "",
                  "this section stands in line " + std::to_string(before) +
                      " already, and only the first one is read: write its keys there");
    } else if (!walk->known) {
        const std::string_view near = nearest_section(name);
        add_fault(walk, "",
                  "is no section that the agent knows, nothing of it is read: " +
                      (near.empty() ? page : "write [" + std::string(near) + "] if that was meant"));
    }
}

std::string advice_for_unknown(const file_walk& walk, std::string_view key) {
    const known_setting* near = nearest_setting(walk.section, key);
    if (near == nullptr) {
        return page;
    }
    const std::string name(near->key);
    if (equal_ignore_case(near->section, walk.section)) {
        return "write " + name + " if that was meant";
    }
    return "write " + name + " in section [" + std::string(near->section) + "] if that was meant";
}

// The key itself, where it has to be a number.
std::string key_fault(const known_setting& setting, std::string_view key) {
    int64_t number = 0;
    if (setting.key != "*" || setting.high == 0 || parse_number(key, setting.low, setting.high, &number)) {
        return "";
    }
    return "the key is no number from " + std::to_string(setting.low) + " to " +
           std::to_string(setting.high) + ", the line has no effect";
}

std::string shown_value(const known_setting& setting, std::string_view value) {
    const std::string line = clean_setting_line(setting.section, setting.key, value);
    return quoted(std::string_view(line).substr(std::min(line.find('=') + 1, line.size())));
}

void check_value(file_walk* walk, const known_setting& setting, std::string_view key,
                 std::string_view value) {
    const std::string wrong = setting_value_fault(setting, value);
    if (wrong.empty()) {
        return;
    }
    const std::string what = std::string(key) + " = " + shown_value(setting, value) + " " + wrong;
    const bool comment =
        value.find(" ;") != std::string_view::npos || value.find(" !") != std::string_view::npos;
    const std::string write =
        ": write " + setting_wanted(setting) + (comment ? ", and the comment on a line of its own" : "");
    if (setting.protects) {
        add_fault(walk, key, what + ", and the agent does not start without knowing what is meant" + write,
                  true);
    } else {
        add_fault(walk, key, what + "; taken instead: " + setting_taken(setting, value) + write);
    }
}

void check_line(file_walk* walk, std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        add_fault(walk, "",
                  "the line is no section and holds no '=', it has no effect: write key = value, or ';' in "
                  "front of it");
        return;
    }
    const std::string_view key = line.substr(0, equals);
    if (walk->section.empty()) {
        add_fault(walk, key,
                  printable(key) + " stands before the first section and has no effect: put it below one");
        return;
    }
    if (!walk->known || walk->passed) {
        return;  // the section was told
    }
    const int before = seen_before(walk, key);
    if (before != 0) {
        add_fault(walk, key,
                  printable(key) + " stands in line " + std::to_string(before) +
                      " already, and the first one counts: remove one of them");
        return;
    }
    const known_setting* setting = find_setting(walk->section, key);
    if (setting == nullptr) {
        add_fault(walk, key,
                  printable(key) +
                      " is no key that the agent knows, it has no effect: " + advice_for_unknown(*walk, key));
        return;
    }
    const std::string wrong_key = key_fault(*setting, key);
    if (!wrong_key.empty()) {
        add_fault(walk, key, printable(key) + ": " + wrong_key);
        return;
    }
    check_value(walk, *setting, key, line.substr(equals + 1));
}

// A section as reading finds it: at least one letter between "[" and the last "]".
bool opens_section(std::string_view line, std::string_view* name) {
    const size_t end = line.rfind(']');
    if (line.size() < 3 || line[0] != '[' || end == std::string_view::npos || end < 2) {
        return false;
    }
    *name = line.substr(1, end - 1);
    return true;
}

// Of the last start; the log takes them once it is open. Main thread.
std::vector<setting_fault> told_faults;

}  // namespace

std::vector<setting_fault> settings_faults(const char* ini) {
    file_walk walk;
    const qx_stream file(FileFOpenNoTrace(ini, "r"));
    if (!file.valid()) {
        return {};
    }
    char line[ini_record_size];
    bool cut = false;
    bool rest = false;  // of a line that was cut: what it holds is told with its beginning
    while (profile_read_line(file.get(), line, sizeof line, &walk.line, &cut) != read_end_of_file) {
        std::string_view name;
        if (cut && !rest) {
            add_fault(&walk, "",
                      "the line is longer than " + std::to_string(sizeof line - 1) +
                          " characters, what stands behind them is read as a line of its own: shorten it");
        } else if (!rest && opens_section(line, &name)) {
            enter_section(&walk, name);
        } else if (!rest) {
            check_line(&walk, line);
        }
        rest = cut;
    }
    return walk.faults;
}

std::string fault_line(const char* ini, const setting_fault& fault) {
    const std::string section = fault.section.empty() ? "" : "[" + printable(fault.section) + "] ";
    return std::string(ini) + ":" + std::to_string(fault.line) + ": " + section + fault.text;
}

void settings_tell_faults(const EX_PCX* pcx, FILE* out) {
    told_faults = settings_faults(pcx->IniFile);
    for (const setting_fault& fault : told_faults) {
        fprintf(out, "%s\n", fault_line(pcx->IniFile, fault).c_str());
    }
}

int settings_log_faults(const EX_PCX* pcx, qx7_error* error) {
    const setting_fault* end = nullptr;
    for (const setting_fault& fault : told_faults) {
        __PutLogText("%s", fault_line(pcx->IniFile, fault).c_str());
        end = end == nullptr && fault.ends_start ? &fault : end;
    }
    if (end == nullptr) {
        return 0;
    }
    return qx_error_set(error, -1, 0, number_bad_setting, "%s|%s|", end->key.c_str(), end->section.c_str());
}

bool settings_protecting_switch(EX_PCX* pcx, const char* section, const char* key, bool safe) {
    const known_setting* setting = find_setting(section, key);
    char value[ini_record_size];
    pcx->getProfileString(pcx, section, key, std::string(setting->preset).c_str(), value, sizeof value);
    const std::string wrong = setting_value_fault(*setting, value);
    if (!wrong.empty()) {
        __log(-1, "%s: [%s] %s = '%s' %s; %s is taken until the INI file says what is meant", pcx->IniFile,
              section, key, printable(value).c_str(), wrong.c_str(), safe ? "yes" : "no");
        return safe;
    }
    return pcx->getProfileBool(pcx, section, key, std::string(setting->preset).c_str());
}
