#include "agent/system_variables.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/context.h"
#include "base/error_text.h"
#include "base/memory.h"
#include "base/message_numbers.h"
#include "base/text.h"
#include "log/log.h"
#include "services/mail.h"

namespace {

constexpr char eyecatcher[] = "%%EXECUTOR VAR%%";
constexpr char mainframe_machine[] = "390";

int read_host(_ExecutorVar* var, qx7_error* error) {
    utsname host;
    if (uname(&host) != 0) {
        const int number = errno;
        __log(number_system_call, "%s", call_insert("uname", number).c_str());
        return call_error(error, "uname", number);
    }
    const bool mainframe = strstr(host.machine, mainframe_machine) != nullptr;
    copy_text(var->OS_sysname, mainframe ? "zLinux" : host.sysname);
    copy_text(var->OS_release, host.release);
    copy_text(var->OS_version, host.version);
    copy_text(var->OS_machine, host.machine);
    copy_text(var->OS_nodename, host.nodename);
    return 0;
}

void override_host(EX_PCX* pcx, _ExecutorVar* var) {
    pcx->getProfileString(pcx, "GLOBAL", "hw", var->OS_machine, var->OS_machine, sizeof var->OS_machine);
    pcx->getProfileString(pcx, "GLOBAL", "sw", var->OS_sysname, var->OS_sysname, sizeof var->OS_sysname);
    pcx->getProfileString(pcx, "GLOBAL", "sw_vers", var->OS_release, var->OS_release, sizeof var->OS_release);
}

// The first address of an interface that is up and no loopback. Asked of the kernel and not of the resolver,
// which may take seconds on a host without a name service.
void read_address(_ExecutorVar* var) {
    copy_text(var->ipAddr, "127.0.0.1");
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return;  // the address is for the log only
    }
    for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
        const bool usable = at->ifa_addr != nullptr && at->ifa_addr->sa_family == AF_INET &&
                            (at->ifa_flags & IFF_UP) != 0 && (at->ifa_flags & IFF_LOOPBACK) == 0;
        if (!usable) {
            continue;
        }
        sockaddr_in address;
        memcpy(&address, at->ifa_addr, sizeof address);
        inet_ntop(AF_INET, &address.sin_addr, var->ipAddr, sizeof var->ipAddr);
        break;
    }
    freeifaddrs(list);
}

void log_variables(const EX_PCX* pcx, const _ExecutorVar* var) {
    __log(number_hardware, "%s/%i|", var->OS_machine, var->activeCPU);
    __log(number_operating_system, "%s|", var->OS_sysname);
    __log(number_system_release, "%s|", var->OS_release);
    __log(number_program_width, "%s|", "64-bit");
    __log(number_open_files, "%d|", pcx->OpenFileMax);
}

}  // namespace

int GetCPUs() {
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online < 1 ? 1 : static_cast<int>(online);
}

int Var_Open(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    _ExecutorVar* var = new (std::nothrow) _ExecutorVar();
    if (var == nullptr) {
        return call_error(error, "calloc", ENOMEM);
    }
    memcpy(var->Key, eyecatcher, sizeof var->Key);
    var->pPcx = pcx;
    var->GlbSysName = pcx->sysName;
    var->exName = pcx->exName;
    var->exNodeName = pcx->exNodeName;
    copy_text(var->exVers, pcx->exVers);
    copy_text(var->exBuild_Date, __DATE__);
    copy_text(var->exBuild_Time, __TIME__);
    var->ExStart_Typ = START_COLD;
    var->SwAddrMode = 'L';
    pcx->pcx_varex = var;
    if (read_host(var, error) != 0) {
        return -1;
    }
    override_host(pcx, var);
    var->activeCPU = GetCPUs();
    const long configured = sysconf(_SC_NPROCESSORS_CONF);
    var->availCPU = configured < 1 ? var->activeCPU : static_cast<int>(configured);
    var->LogCpuPerProc = 1;
    read_address(var);
    pcx->OpenFileMax = std::max(pcx->getProfileInt(pcx, "GLOBAL", "open_file_max", "32768"), 0);
    pcx->getProfileString(pcx, "VARIABLES", "QX_HOST_CODE", "", var->QxHostCode, sizeof var->QxHostCode);
    pcx->getProfileString(pcx, "VARIABLES", "QX_HOST_JCL_VAR", "", var->QxHostJclVar,
                          sizeof var->QxHostJclVar);
    initSmtpMail(pcx);
    log_variables(pcx, var);
    return 0;
}

int Var_Close(EX_PCX* pcx) {
    if (pcx->pcx_varex == nullptr) {
        return 0;
    }
    qx_wipe(pcx->pcx_varex->smtp_password, sizeof pcx->pcx_varex->smtp_password);
    delete pcx->pcx_varex;
    pcx->pcx_varex = nullptr;
    return 0;
}
