// Finding and binding the PAM library.
#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/message_numbers.h"
#include "base/text.h"
#include "identity/pam.h"
#include "log/log.h"

namespace {

// dlsym gives an address without type; the standard guarantees that it may be read as a function's.
template <class Function>
void bind(Function* target, void* address) {
    static_assert(sizeof(Function) == sizeof(void*));
    memcpy(target, &address, sizeof address);
}

struct library_function {
    const char* name;
    void (*store)(void* address);
};

// In the order in which they are looked up.
constexpr library_function library_functions[] = {
    {"pam_start", [](void* address) { bind(&pam_calls.start, address); }},
    {"pam_end", [](void* address) { bind(&pam_calls.end, address); }},
    {"pam_authenticate", [](void* address) { bind(&pam_calls.authenticate, address); }},
    {"pam_acct_mgmt", [](void* address) { bind(&pam_calls.acct_mgmt, address); }},
    {"pam_chauthtok", [](void* address) { bind(&pam_calls.chauthtok, address); }},
    {"pam_setcred", [](void* address) { bind(&pam_calls.setcred, address); }},
    {"pam_get_item", [](void* address) { bind(&pam_calls.get_item, address); }},
    {"pam_open_session", [](void* address) { bind(&pam_calls.open_session, address); }},
    {"pam_set_item", [](void* address) { bind(&pam_calls.set_item, address); }},
    {"pam_strerror", [](void* address) { bind(&pam_calls.strerror, address); }},
    {"pam_getenvlist", [](void* address) { bind(&pam_calls.getenvlist, address); }},
};

// The library, or for the default name, which only development packages install, the one with its version.
int open_library(EX_PCX* pcx, char* name, size_t size, void** handle, qx7_error* error) {
    if (loadDLL(pcx, name, handle, error) == 0) {
        return 0;
    }
    if (strcmp(name, default_pam_library) != 0) {
        return -1;
    }
    qx7_error second;
    const std::string versioned = std::string(default_pam_library) + ".0";
    if (loadDLL(pcx, versioned.c_str(), handle, &second) != 0) {
        return -1;
    }
    copy_text(name, size, versioned);
    qx_error_clear(error);
    return 0;
}

}  // namespace

int loadDLL(EX_PCX* pcx, const char* file, void** handle, qx7_error* error) {
    (void)pcx;
    dlerror();
    *handle = dlopen(file, RTLD_NOW | RTLD_GLOBAL);
    if (*handle != nullptr) {
        return 0;
    }
    const char* reason = dlerror();
    return qx_error_set(error, -1, ENOENT, number_pam_library, "%s|%s|", file,
                        reason == nullptr ? "dlopen() returned no error." : reason);
}

int unloadDLL(EX_PCX* pcx, void* handle, const char* file, qx7_error* error) {
    pam_calls = {};
    if (pcx != nullptr && pcx->pam_handle == handle) {
        pcx->pam_handle = nullptr;
        pcx->pcx_flag.fetch_and(~PCX_FLAG_PAM_LOADED);
    }
    if (handle == nullptr || dlclose(handle) == 0) {
        return 0;
    }
    const char* reason = dlerror();
    return qx_error_set(error, -1, EINVAL, number_pam_library, "%s|%s|", file,
                        reason == nullptr ? "" : reason);
}

int LoadPamFunctions(void* handle, char* nameBuffer, size_t size, qx7_error* error) {
    for (const library_function& function : library_functions) {
        dlerror();
        void* address = dlsym(handle, function.name);
        if (address == nullptr) {
            const char* reason = dlerror();
            __PutLogText("%s", reason == nullptr ? function.name : reason);
            copy_text(nameBuffer, size, function.name);
            pam_calls = {};
            return qx_error_set(error, -1, ENOSYS, 0, "%s", function.name);
        }
        function.store(address);
    }
    return 0;
}

int LoadPamDll(EX_PCX* pcx, qx7_error* error) {
    qx_error_clear(error);
    pcx->getProfileString(pcx, "PAM", "libname", default_pam_library, pcx->pcx_PamLibrary,
                          sizeof pcx->pcx_PamLibrary);
    void* handle = nullptr;
    if (open_library(pcx, pcx->pcx_PamLibrary, sizeof pcx->pcx_PamLibrary, &handle, error) != 0) {
        return -1;
    }
    char missing[64] = {};
    if (LoadPamFunctions(handle, missing, sizeof missing, error) != 0) {
        dlclose(handle);
        return qx_error_set(error, -1, ENOSYS, number_pam_function, "%s|%s|", missing, pcx->pcx_PamLibrary);
    }
    pcx->pam_handle = handle;
    __log(number_pam_loaded, "%s|", pcx->pcx_PamLibrary);
    return 0;
}

int BindPamDll() {
    EX_PCX* pcx = GlbPcx;
    char method[32] = {};
    pcx->getProfileString(pcx, "MISC", "authentication", "local", method, sizeof method);
    pcx->pcx_Auth = upper(strip(method)) == "PAM" ? AUTH_PAM : AUTH_LOCAL;
    if (pcx->pcx_Auth != AUTH_PAM) {
        return 0;
    }
    qx7_error error;
    if (LoadPamDll(pcx, &error) != 0) {
        __log_error(error);
        return -1;
    }
    pcx->pcx_flag.fetch_or(PCX_FLAG_PAM_LOADED);
    __log(number_pam_passwords, "%s", "");
    return 0;
}
