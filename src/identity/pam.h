// PAM, loaded at run time. The records and numbers are those of the PAM standard (X/Open RFC 86.0, as
// Linux-PAM has them); only what the agent uses is declared. All calls run on the thread that holds the
// effective-user lock.
#pragma once

#include <string>
#include <string_view>

#include "base/context.h"
#include "base/error.h"
#include "base/memory.h"

struct pam_handle;  // opaque, belongs to the library
using pam_handle_t = pam_handle;

struct pam_message {
    int msg_style;
    const char* msg;
};
struct pam_response {
    char* resp;  // malloc'ed, freed by the module
    int resp_retcode;
};
struct pam_conv {
    int (*conv)(int num_msg, const pam_message** msg, pam_response** resp, void* appdata_ptr);
    void* appdata_ptr;
};

enum pam_status : int {
    PAM_SUCCESS = 0,
    PAM_BUF_ERR = 5,
    PAM_AUTH_ERR = 7,
    PAM_NEW_AUTHTOK_REQD = 12,
    PAM_CONV_ERR = 19,
};
enum pam_style : int {
    PAM_PROMPT_ECHO_OFF = 1,
    PAM_PROMPT_ECHO_ON = 2,
    PAM_ERROR_MSG = 3,
    PAM_TEXT_INFO = 4,
};
enum pam_call_flag : int {
    PAM_ESTABLISH_CRED = 0x0002,
    PAM_DELETE_CRED = 0x0004,
    PAM_CHANGE_EXPIRED_AUTHTOK = 0x0020,
};
// The item that holds the function which waits after a failure.
inline constexpr int PAM_FAIL_DELAY = 10;
// Given to pam_end: the handle ends without touching what the session left, as tickets and credentials.
inline constexpr int pam_data_silent = 0x40000000;
inline constexpr char default_pam_library[] = "libpam.so";

// Private data of the conversation. Only prompts count and get the password; while `changing` is set none is
// answered, since the old password must not become the new one.
struct pam_data_t {
    const char* pdata_user = nullptr;
    const char* pdata_pw = nullptr;
    int pdata_flag = 0;  // times that the conversation answered a prompt
    bool changing = false;
};

// The eleven functions, filled at load; all null while no library is loaded.
struct pam_functions {
    int (*start)(const char* service, const char* user, const pam_conv* conversation, pam_handle_t** handle);
    int (*end)(pam_handle_t* handle, int status);
    int (*authenticate)(pam_handle_t* handle, int flags);
    int (*acct_mgmt)(pam_handle_t* handle, int flags);
    int (*chauthtok)(pam_handle_t* handle, int flags);
    int (*setcred)(pam_handle_t* handle, int flags);
    int (*get_item)(const pam_handle_t* handle, int item, const void** value);
    int (*open_session)(pam_handle_t* handle, int flags);
    int (*set_item)(pam_handle_t* handle, int item, const void* value);
    const char* (*strerror)(pam_handle_t* handle, int status);
    char** (*getenvlist)(pam_handle_t* handle);
};
extern pam_functions pam_calls;

// What section PAM says; the job processor's set-up fills it.
struct pam_settings {
    bool do_pam_setcred = false;
    bool do_pam_open_session = false;
    bool do_pam_open_session_cp = true;  // the session is opened in the job's child
};
extern pam_settings pam_options;

// Reads MISC/authentication into pcx_Auth and, for PAM, loads the library (logged). 0 or -1. Main thread, at
// start.
int BindPamDll();
// Loads the library that PAM/libname names, falling back from "libpam.so" to "libpam.so.0", and binds its
// functions. 0, or -1 with 2000087 or 2000086 in `error`.
int LoadPamDll(EX_PCX* pcx, qx7_error* error);
// Binds all functions of an opened library. The first that is missing is logged and named in nameBuffer (at
// most size - 1 characters). 0 or -1.
int LoadPamFunctions(void* handle, char* nameBuffer, size_t size, qx7_error* error);
// dlopen; 0 and the handle, or -1 with 2000087 "<file>|<reason>|".
int loadDLL(EX_PCX* pcx, const char* file, void** handle, qx7_error* error);
// dlclose; the functions are forgotten. 0 or -1.
int unloadDLL(EX_PCX* pcx, void* handle, const char* file, qx7_error* error);

// One conversation: authenticates, checks the account, sets credentials and opens the session as the settings
// say. 1, and with `handle` given and sessions on, the open handle, which the caller ends after the start; or
// 0 with the reason in `text`, and no handle left open. The supplementary groups of the process stay as they
// were.
int PamPasswordCheck(const char* user, const char* password, std::string* text, pam_handle_t** handle);
// A status of the library. `inChild` tells the trace whose session it is.
int PamOpenSession(pam_handle_t* handle, bool inChild);
// Ends a handle (null is allowed), before it deletes the credentials if they are wanted away. Result of
// pam_end.
int PamEnd(pam_handle_t* handle, int status, bool withCredentials);
// Ends a handle behind a successful start: silently, credentials and tickets stay with the job.
int PamEndAfterStart(pam_handle_t* handle);

// Brings the handle's environment into this process by putenv; entries that PamEnvToExport refuses stay out.
void PamGetSetEnvironment(pam_handle_t* handle);
// Takes over a list of malloc'ed entries, ended by null, and frees it.
void PamExportEnvironment(char** list);
bool PamEnvToExport(std::string_view entry);

// The conversation function; appdata_ptr is a pam_data_t.
int PAM_conv(int num_msg, const pam_message** msg, pam_response** resp, void* appdata_ptr);
