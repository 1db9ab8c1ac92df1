#include "jobs/who_may_start.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/profile.h"
#include "base/text.h"
#include "jobs/job_context.h"

namespace {

constexpr char section_users[] = "USERID";
constexpr char section_numbers[] = "QX_USER";
constexpr char root_name[] = "root";
constexpr char value_start[] = "START";
constexpr char value_no_start[] = "NO_START";

std::string setting(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char value[256];
    pcx->getProfileString(pcx, section, key, preset, value, sizeof value);
    return upper(strip(value));
}

// Key lists have no bound here: a NO_START that is passed over would let somebody in. So the file is read,
// and not the service, whose lists end after some kilobytes.
std::vector<std::string> key_list(EX_PCX* pcx, const char* section) {
    std::vector<std::string> keys;
    const qx_stream file(FileFOpenNoTrace(pcx->IniFile, "r"));
    if (!file.valid()) {
        return keys;
    }
    char line[ini_record_size];
    bool inside = false;
    while (GetProfZeile(file.get(), line, sizeof line) != read_end_of_file) {
        const std::string_view text(line);
        const size_t end = text.rfind(']');
        const size_t equals = text.find('=');
        if (text.starts_with('[') && end != std::string_view::npos) {
            if (inside) {
                break;  // the first section of a name counts
            }
            inside = equal_ignore_case(text.substr(1, end - 1), section);
        } else if (inside && equals != std::string_view::npos) {
            keys.emplace_back(text.substr(0, equals));
        }
    }
    return keys;
}

// An entry of an inclusive section admits only by START, one of an exclusive section refuses only by
// NO_START.
char entry_flag(EX_PCX* pcx, const char* section, const char* key, bool inclusive) {
    if (inclusive) {
        return setting(pcx, section, key, value_no_start) == value_start ? JOB_MAY_START : JOB_MAY_NOT_START;
    }
    return setting(pcx, section, key, value_start) == value_no_start ? JOB_MAY_NOT_START : JOB_MAY_START;
}

char user_entry_flag(EX_PCX* pcx, const JPPCX* context, const char* name) {
    return entry_flag(pcx, section_users, name,
                      context->Fl_UidType == JOB_LIST_INCLUSIVE || strcmp(name, root_name) == 0);
}

char unlisted_user_flag(const JPPCX* context, const char* name, uid_t uid) {
    const bool as_root = strcmp(name, root_name) == 0 || uid == 0;
    return as_root || context->Fl_UidType == JOB_LIST_INCLUSIVE ? JOB_MAY_NOT_START : JOB_MAY_START;
}

bool is_listed(EX_PCX* pcx, const char* section, const char* key) {
    char value[8];
    return pcx->getProfileString(pcx, section, key, "", value, sizeof value) > 0;
}

}  // namespace

void read_start_lists(EX_PCX* pcx, JPPCX* context) {
    context->userids.clear();
    for (const std::string& name : key_list(pcx, section_users)) {
        context->userids.push_back({name, user_entry_flag(pcx, context, name.c_str())});
    }
    context->qx_users.clear();
    for (const std::string& number : key_list(pcx, section_numbers)) {
        const bool inclusive = context->Qx_UidType == JOB_LIST_INCLUSIVE;
        context->qx_users.push_back({strtol(number.c_str(), nullptr, 10),
                                     entry_flag(pcx, section_numbers, number.c_str(), inclusive)});
    }
}

char user_start_flag(EX_PCX* pcx, const JPPCX* context, const char* name, uid_t uid) {
    if (context->JP_ReadUser == JOB_LISTS_ALWAYS) {
        return is_listed(pcx, section_users, name) ? user_entry_flag(pcx, context, name)
                                                   : unlisted_user_flag(context, name, uid);
    }
    for (const userid& entry : context->userids) {
        if (entry.username == name) {
            return entry.flag;
        }
    }
    return unlisted_user_flag(context, name, uid);
}

char number_start_flag(EX_PCX* pcx, const JPPCX* context, uint32_t number) {
    const bool inclusive = context->Qx_UidType == JOB_LIST_INCLUSIVE;
    if (context->JP_ReadUser == JOB_LISTS_ALWAYS) {
        return entry_flag(pcx, section_numbers, std::to_string(number).c_str(), inclusive);
    }
    for (const qx_user& entry : context->qx_users) {
        if (entry.useridnr == static_cast<long>(number)) {
            return entry.flag;
        }
    }
    return inclusive ? JOB_MAY_NOT_START : JOB_MAY_START;
}
