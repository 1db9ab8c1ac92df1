// Opening and closing of the security layer with the agent's settings.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "base/context.h"
#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/files.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "log/log.h"
#include "security/key_store.h"
#include "security/random.h"

namespace {

constexpr char default_key_store[] = "KStore.ini";

// A file named in the section AUTHORIZATION, relative to the folder of the program; empty when none is named.
std::string authorization_file(EX_PCX* pcx, const char* key, const char* preset) {
    char name[qx_path_size] = {}, path[qx_path_size] = {};
    pcx->getProfileString(pcx, "AUTHORIZATION", key, preset, name, sizeof name);
    if (name[0] == '\0') {
        return preset[0] == '\0' ? "" : authorization_file(pcx, "", preset);
    }
    return GetPfad(pcx->pcx_WorkFolder, name, path, sizeof path) == 0 ? path : name;
}

// The number for machines and, in a line of its own, the reason for people.
int call_failure(qx7_error* error, const char* call, const std::string& file, int number) {
    const bool unread = number == KM_OPEN || number == KM_READ;
    __log(-1, "%s '%s': %s%s%s", call, file.c_str(), km_explain(agent_keys(), number).c_str(),
          unread ? ": " : "", unread ? strerror(agent_keys().store_errno) : "");
    return qx_error_set(error, -1, number, number_call_failed, "%s|%08X|", call,
                        static_cast<unsigned>(number));
}

int read_package(int fd, uint8_t* out, size_t room, size_t* length) {
    *length = 0;
    while (*length < room) {
        ssize_t got = read(fd, out + *length, room - *length);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        *length += static_cast<size_t>(got);
    }
    return 0;
}

// Only as long as the store holds no key for the agent: a package that was left behind must not bring an old
// key back.
int import_initial_package(EX_PCX* pcx, qx7_error* error) {
    qx_secret<gss_key_size> key;
    if (get_transfer_key(agent_keys(), agent_keys().exName, key.data()) != KM_NAME_UNKNOWN) {
        return 0;
    }
    std::string file = authorization_file(pcx, "InitialPackage", "");
    if (file.empty()) {
        return 0;
    }
    qx_descriptor in(FileOpenRead(file.c_str()));
    qx_secret<initial_package_max + 1> package;
    size_t length = 0;
    if (!in.valid() || read_package(in.get(), package.data(), package.size(), &length) != 0) {
        // The agent can do without: a server may agree on a key at first contact.
        qx7_error unreadable;
        file_error(&unreadable, "FileOpenRead()", file.c_str(), errno);
        __log_error(unreadable);
        return 0;
    }
    __log(number_initial_package, "%s|", file.c_str());
    int number = ImportKey(&agent_keys(), {package.data(), length}, {});
    return number == KM_OK ? 0 : call_failure(error, "ImportKey", file, number);
}

// Which key the agent holds, or how it comes to one.
void log_key_state() {
    const key_manager& keys = agent_keys();
    const std::string fingerprint = key_fingerprint(keys, keys.exName);
    if (!fingerprint.empty()) {
        __log(-1, "the agent's transfer key has the fingerprint %s", fingerprint.c_str());
    } else if (keys.first_contact) {
        __log(-1,
              "the agent holds no transfer key yet: it will take one from the first server that knows the "
              "company key");
    } else {
        __log(
            -1,
            "the agent holds no transfer key and AUTHORIZATION/first_contact is no: no server can log it on "
            "until an initial package brings a key");
    }
}

// Group and others have nothing to do with the store, whoever made the file.
void tighten_mode(const std::string& file) {
    struct stat status;
    if (stat(file.c_str(), &status) == 0 && (status.st_mode & 0377) != 0 && chmod(file.c_str(), 0400) != 0) {
        qx7_error refused;
        file_error(&refused, "chmod()", file.c_str(), errno);
        __log_error(refused);
    }
}

int import_own_name(EX_PCX* pcx, qx7_error* error) {
    OM_uint32 minor = 0;
    gss_buffer_desc name{agent_keys().exName.size(), agent_keys().exName.data()};
    gss_release_name(nullptr, &pcx->pcx_sName);
    OM_uint32 major = gss_import_name(&minor, &name, GSS_C_NT_MACHINE_UID_NAME, &pcx->pcx_sName);
    return major == GSS_S_COMPLETE ? 0
                                   : qx_error_set(error, -1, static_cast<int>(minor), number_security_call,
                                                  "gss_import_name|%u|%u|", major, minor);
}

}  // namespace

int GssOpen(qx7_error* error) {
    qx_error_clear(error);
    EX_PCX* pcx = GetGlbPcx();
    InitRandom();
    std::string file = authorization_file(pcx, "KeyStore", default_key_store);
    tighten_mode(file);
    int number = KComInit(&agent_keys(), pcx->sysName, pcx->exName, {}, file);
    if (number != KM_OK) {
        return call_failure(error, "KComInit", file, number);
    }
    agent_keys().first_contact = pcx->getProfileBool(pcx, "AUTHORIZATION", "first_contact", "yes");
    KMsetGSSCallback();
    if (import_initial_package(pcx, error) != 0 || import_own_name(pcx, error) != 0) {
        GssClose();
        return -1;
    }
    log_key_state();
    return 0;
}

void GssClose() {
    gss_setCallbacks(nullptr);
    KComExit(&agent_keys());
    CloseRandom();
    EX_PCX* pcx = GetGlbPcx();
    if (pcx != nullptr) {
        gss_release_name(nullptr, &pcx->pcx_sName);
    }
}
