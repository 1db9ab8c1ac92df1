#include "agent/logon.h"

#include <cstring>
#include <ctime>
#include <vector>

#include "agent/system_variables.h"
#include "base/context.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "base/text.h"
#include "base/time.h"
#include "channels/connect.h"
#include "channels/messages.h"
#include "channels/outgoing.h"
#include "log/log.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"

namespace {

constexpr size_t variable_name_max = 199;
constexpr size_t variable_value_max = 254;
constexpr uint32_t service_bits = 0x6F9E;
constexpr uint32_t service_mail = 1;

constexpr char agent_sw[] = "LINUX";
constexpr char agent_hw[] = "X64";
constexpr char agent_platform[] = "UNIX";

struct variable_list {
    std::string* bytes;
    int count = 0;
};

void add_variable(variable_list* list, std::string_view name, std::string_view value) {
    list->bytes->append(name.substr(0, variable_name_max));
    list->bytes->push_back('\0');
    list->bytes->append(value.substr(0, variable_value_max));
    list->bytes->push_back('\0');
    ++list->count;
}

std::string as_folder(const char* path) {
    std::string folder = path;
    if (folder.empty() || folder.back() != '/') {
        folder += '/';
    }
    return folder;
}

std::string messenger_path(const EX_PCX* pcx) {
    char path[qx_path_size];
    qx7_error error;
    return createUnixPath(pcx->pcx_WorkFolder, pcx->meldName, path, &error) == 0 ? path : pcx->meldName;
}

// Paths go out in full; two folders and the host code have places of their own.
void add_configured(EX_PCX* pcx, const char* key, variable_list* list) {
    if (equal_ignore_case(key, "QX_HOST_CODE") || equal_ignore_case(key, "QX_EX_PATH_BACKUP") ||
        equal_ignore_case(key, "QX_EX_PATH_CACHE")) {
        return;
    }
    char value[4096];
    pcx->getProfileString(pcx, "VARIABLES", key, "", value, sizeof value);
    std::string sent = value;
    if (equal_ignore_case(key, "QX_EX_PATH_BIN")) {
        sent = as_folder(pcx->pcx_BinFolder);
    } else if (equal_ignore_case(key, "QX_EX_PATH_JOBREPORT")) {
        sent = as_folder(pcx->pcx_OutFolder);
    } else if (equal_ignore_case(key, "QX_EX_PATH_TEMP")) {
        sent = as_folder(pcx->pcx_TmpFolder);
    } else if (equal_ignore_case(key, "QX_EX_JOB_MD")) {
        sent = messenger_path(pcx);
    }
    add_variable(list, key, sent);
}

// Added unless the INI file names it. True when the file does.
bool add_preset(EX_PCX* pcx, const char* key, const char* preset, variable_list* list, char (&value)[256]) {
    pcx->getProfileString(pcx, "VARIABLES", key, "", value, sizeof value);
    if (value[0] != '\0') {
        return true;
    }
    copy_text(value, preset);
    add_variable(list, key, preset);
    return false;
}

std::string hardware_text(const _ExecutorVar* var) {
    std::string text = var->OS_machine;
    if (var->activeCPU > 0) {
        const std::string count = "/" + std::to_string(var->activeCPU);
        text = text.substr(0, 32 - count.size()) + count;
    }
    for (char& letter : text) {
        letter = letter == ' ' || letter == '/' ? '_' : letter;
    }
    return text;
}

void fill_version(MSG_TYPE_VERS* version) {
    version->major = qx_major;
    version->minor = qx_minor;
    version->patch = qx_patch;
    put_text(version->release_id, qx_build);
    put_text(version->remote_id, "");
    memset(version->filler, ' ', sizeof version->filler);
}

void fill_times(const EX_PCX* pcx, MSG_TYPE_EXSTART2* start) {
    tm local = {};
    if (!qx_localtime(time(nullptr), &local)) {
        local.tm_isdst = 0;  // a broken time zone counts as UTC
        local.tm_gmtoff = 0;
    }
    start->daylight = local.tm_isdst > 0 ? 'Y' : 'N';
    start->starttime = timestamp_utc(pcx->exStart);
    start->acttime = timestamp_now();
    start->zeitzone.zz_hh = static_cast<int16_t>(local.tm_gmtoff / 3600);
    start->zeitzone.zz_mi = static_cast<int16_t>(local.tm_gmtoff % 3600);
}

void fill_address(const EX_PCX* pcx, MSG_TYPE_EXSTART2* start) {
    char address[64] = {};
    if (pcx->listener_bindaddr[0] != '\0') {
        copy_text(address, pcx->listener_bindaddr);
    } else {
        ccm_error_t error;
        if (ccm_getmyIP(CCM_PREFER_IPV4, address, &error) != 0) {
            __log_error(error);
        }
    }
    put_text(start->ipadr, address);
    start->ipport = pcx->ipPort;
}

char enabled(EX_PCX* pcx, const char* section) {
    return pcx->getProfileBool(pcx, section, "enabled", "0") ? 'Y' : ' ';
}

void fill_components(EX_PCX* pcx, MSG_TYPE_EXSTART2* start) {
    start->Components.Comp1 = enabled(pcx, "SAP_BW");
    start->Components.Comp2 = enabled(pcx, "SAP_BCA");
    start->Components.Comp3 = enabled(pcx, "SAP_XI");
    memset(start->Components.filler, ' ', sizeof start->Components.filler);
}

void fill_start(EX_PCX* pcx, MSG_TYPE_EXSTART2* start) {
    const _ExecutorVar* var = pcx->pcx_varex;
    put_text(start->host, pcx->exName);
    put_text(start->hw, hardware_text(var));
    put_text(start->sw, var->OS_sysname);
    put_text(start->sw_vers, var->OS_release);
    fill_version(&start->version);
    start->reserved1 = ' ';
    start->starttype = var->ExStart_Typ;
    char files[16];
    snprintf(files, sizeof files, "%10i", pcx->OpenFileMax);
    put_text(start->processid, files);
    memset(start->filler, ' ', sizeof start->filler);
    start->ah_idnr = pcx->report_id;
    memcpy(start->rep_type, pcx->report_type, sizeof start->rep_type);
    start->service = service_bits | (pcx->pcx_smtpMail != 0 ? service_mail : 0);
    fill_times(pcx, start);
    fill_address(pcx, start);
    put_text(start->codename, var->QxHostCode);
    put_text(start->jclvar, var->QxHostJclVar);
    start->cpu_count = var->activeCPU;
    memset(start->filler2, ' ', sizeof start->filler2);
    fill_components(pcx, start);
}

}  // namespace

int CreateExStartVar(EX_PCX* pcx, std::string* list) {
    variable_list variables = {list};
    std::vector<char> keys(65536);
    pcx->getProfileString(pcx, "VARIABLES", "", "", keys.data(), keys.size());
    for (const char* key = keys.data(); *key != '\0'; key += strlen(key) + 1) {
        add_configured(pcx, key, &variables);
    }
    add_variable(&variables, "QX_EX_PATH_BACKUP", as_folder(pcx->pcx_rb_dir));
    add_variable(&variables, "QX_EX_PATH_CACHE", as_folder(pcx->pcx_res_dir));
    char software[256];
    char hardware[256];
    char platform[256];
    bool given = add_preset(pcx, "QX_AGENT_SW", agent_sw, &variables, software);
    given |= add_preset(pcx, "QX_AGENT_HW", agent_hw, &variables, hardware);
    given |= add_preset(pcx, "QX_AGENT_PLATFORM", agent_platform, &variables, platform);
    if (given) {
        __log(number_ini_platform, "%s|%s|%s|", software, hardware, platform);
    }
    return variables.count;
}

int send_exstart(EX_PCX* pcx) {
    std::string list;
    variable_list variables = {&list, CreateExStartVar(pcx, &list)};
    message_builder<MSG_TYPE_EXSTART2> start(0, 0, 2);
    fill_start(pcx, &start.record);
    start.begin_table(MSG_TYPE_EXSTART2::vartab, static_cast<size_t>(variables.count));
    start.put(list);
    return send_built(pcx->ccm, start, to_server(pcx, "QXVAREXR", "QXEXVAR"));
}
