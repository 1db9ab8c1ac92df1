// One PAM conversation: from the password to the open session.
#include "identity/pam.h"

#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <vector>

#include "base/error_text.h"
#include "base/locks.h"
#include "identity/accounts.h"
#include "identity/password_check.h"
#include "log/trace.h"

pam_functions pam_calls = {};
pam_settings pam_options = {};

namespace {

constexpr size_t export_entry_limit = 1024;

// Data of the conversations whose handles are open. The library keeps a pointer to it as long as the handle
// lives. Guarded by the effective-user lock.
std::map<pam_handle_t*, std::unique_ptr<pam_data_t>> open_conversations;

// Modules may change the groups of the process that they run in; the agent keeps its own.
struct groups_keeper {
    std::vector<gid_t> groups;
    bool wanted = geteuid() == 0;

    groups_keeper() {
        if (!wanted) {
            return;
        }
        const int count = getgroups(0, nullptr);
        groups.resize(count > 0 ? static_cast<size_t>(count) : 0);
        const int read = getgroups(count > 0 ? count : 0, groups.data());
        wanted = read >= 0;
        groups.resize(read > 0 ? static_cast<size_t>(read) : 0);
    }
    groups_keeper(const groups_keeper&) = delete;
    groups_keeper& operator=(const groups_keeper&) = delete;
    ~groups_keeper() {
        if (wanted && setgroups(groups.size(), groups.data()) != 0 && trc_on(TRC_JOB)) {
            _TraceText("setgroups after PAM: %s", error_text(errno).c_str());
        }
    }
};

bool is_prompt(int style) {
    return style == PAM_PROMPT_ECHO_OFF || style == PAM_PROMPT_ECHO_ON;
}

void free_responses(pam_response* responses, int count) {
    for (int i = 0; i < count; ++i) {
        if (responses[i].resp != nullptr) {
            qx_wipe(responses[i].resp, strlen(responses[i].resp));
            free(responses[i].resp);
        }
    }
    free(responses);
}

// The library would sleep for it, up to some seconds and on the thread that serves everybody.
void no_failure_delay(int, unsigned, void*) {}

// The state of one check; ends its handle unless that was handed over.
struct pam_check {
    pam_handle_t* handle = nullptr;
    pam_data_t* data = nullptr;
    std::string* text;

    int refuse(const std::string& reason) const {
        if (text != nullptr) {
            *text = reason;
        }
        return 0;
    }
    std::string reason(int status) const {
        const char* found = pam_calls.strerror(handle, status);
        return found == nullptr ? "PAM error " + std::to_string(status) : found;
    }
    int refuse_and_end(int status, const std::string& why, bool withCredentials) const {
        refuse(why);
        PamEnd(handle, status, withCredentials);
        return 0;
    }

    int start(const char* user, const char* password) {
        auto record = std::make_unique<pam_data_t>();
        record->pdata_user = user;
        record->pdata_pw = password;
        const pam_conv conversation = {PAM_conv, record.get()};
        const int status = pam_calls.start(GlbPcx->ProgName, user, &conversation, &handle);
        if (status != PAM_SUCCESS || handle == nullptr) {
            const std::string why = reason(status);
            handle = nullptr;
            refuse(why);
            return -1;
        }
        data = record.get();
        open_conversations[handle] = std::move(record);
        // A library that does not know the item does not delay either.
        (void)pam_calls.set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(&no_failure_delay));
        return 0;
    }

    // An empty password where the stack failed before it asked; the account check may still admit the user.
    bool failure_is_passed_over(const char* user, const char* password) const {
        return *password == 0 && data->pdata_flag == 0 &&
               (GlbPcx->pcx_hardened == 0 || account_has_empty_password(user));
    }

    int authenticate(const char* user, const char* password) {
        const int status = pam_calls.authenticate(handle, 0);
        if (status != PAM_SUCCESS && !failure_is_passed_over(user, password)) {
            return refuse_and_end(status, reason(status), false);
        }
        if (data->pdata_flag == 0 && *password != 0) {
            // A stack that never asks has not looked at the password.
            return refuse_and_end(status, "Authentication failure", false);
        }
        return 1;
    }

    int check_account() {
        int status = pam_calls.acct_mgmt(handle, 0);
        if (status == PAM_NEW_AUTHTOK_REQD) {
            data->changing = true;
            status = pam_calls.chauthtok(handle, PAM_CHANGE_EXPIRED_AUTHTOK);
            data->changing = false;
        }
        return status == PAM_SUCCESS ? 1 : refuse_and_end(status, reason(status), true);
    }

    int set_credentials() {
        if (!pam_options.do_pam_setcred) {
            return 1;
        }
        const int status = pam_calls.setcred(handle, PAM_ESTABLISH_CRED);
        return status == PAM_SUCCESS ? 1 : refuse_and_end(status, reason(status), true);
    }

    int end_without_session() {
        return PamEnd(handle, PAM_SUCCESS, true) == PAM_SUCCESS
                   ? 1
                   : refuse("failed to release PAM authenticator.");
    }

    int open_session_in_agent() {
        if (pam_options.do_pam_open_session_cp) {
            return 1;
        }
        const int status = PamOpenSession(handle, false);
        return status == PAM_SUCCESS ? 1 : refuse_and_end(status, reason(status), true);
    }
};

}  // namespace

int PAM_conv(int num_msg, const pam_message** msg, pam_response** resp, void* appdata_ptr) {
    auto* data = static_cast<pam_data_t*>(appdata_ptr);
    if (num_msg <= 0 || msg == nullptr || resp == nullptr || data == nullptr) {
        return PAM_CONV_ERR;
    }
    *resp = nullptr;
    // Behind the check the password is gone, and while one is changed the old one must not become the new
    // one.
    const bool silent = data->changing || data->pdata_pw == nullptr;
    auto* responses = static_cast<pam_response*>(calloc(static_cast<size_t>(num_msg), sizeof(pam_response)));
    if (responses == nullptr) {
        return PAM_BUF_ERR;
    }
    bool prompted = false;
    for (int i = 0; i < num_msg; ++i) {
        if (!is_prompt(msg[i]->msg_style)) {
            continue;
        }
        if (silent) {
            free_responses(responses, num_msg);
            return PAM_CONV_ERR;
        }
        responses[i].resp = strdup(data->pdata_pw);
        if (responses[i].resp == nullptr) {
            free_responses(responses, num_msg);
            return PAM_BUF_ERR;
        }
        prompted = true;
    }
    if (prompted) {
        ++data->pdata_flag;
    }
    *resp = responses;
    return PAM_SUCCESS;
}

int PamPasswordCheck(const char* user, const char* password, std::string* text, pam_handle_t** handle) {
    if (handle != nullptr) {
        *handle = nullptr;
    }
    pam_check check{nullptr, nullptr, text};
    if (user == nullptr || *user == 0) {
        return check.refuse("user not specified");
    }
    if (password == nullptr) {
        password = "";
    }
    effUser_guard lock;
    my_passwd_unlimited record;
    if (!GetPwdNameStruct(user, &record, nullptr)) {
        return check.refuse("getpwnam()Authentication failure: user '" + std::string(user) + "' is unknown");
    }
    if (pam_calls.start == nullptr) {
        return check.refuse("no PAM library is loaded");
    }
    const groups_keeper keeper;
    // The order is that of the standard: who is it, may he, what does he get, then his session.
    if (check.start(user, password) != 0 || check.authenticate(user, password) == 0 ||
        check.check_account() == 0 || check.set_credentials() == 0) {
        return 0;
    }
    if (handle == nullptr || !pam_options.do_pam_open_session) {
        return check.end_without_session();
    }
    if (check.open_session_in_agent() == 0) {
        return 0;
    }
    check.data->pdata_pw = nullptr;
    check.data->pdata_user = nullptr;
    *handle = check.handle;
    return 1;
}

int PamOpenSession(pam_handle_t* handle, bool inChild) {
    effUser_guard lock;
    if (inChild) {
        // The child takes its groups afterwards, and what modules give it stays until then.
        return pam_calls.open_session(handle, 0);
    }
    const groups_keeper keeper;
    const int status = pam_calls.open_session(handle, 0);
    if (trc_on(TRC_JOB)) {
        _TraceText("PamOpenSession = %d", status);
    }
    return status;
}

int PamEnd(pam_handle_t* handle, int status, bool withCredentials) {
    if (handle == nullptr || pam_calls.end == nullptr) {
        return PAM_SUCCESS;
    }
    effUser_guard lock;
    const groups_keeper keeper;
    if (pam_options.do_pam_setcred && withCredentials) {
        const int deleted = pam_calls.setcred(handle, PAM_DELETE_CRED);
        if (deleted != PAM_SUCCESS && trc_on(TRC_JOB)) {
            _TraceText("pam_setcred(PAM_DELETE_CRED) = %d", deleted);
        }
    }
    const int result = pam_calls.end(handle, status);
    open_conversations.erase(handle);
    return result;
}

int PamEndAfterStart(pam_handle_t* handle) {
    return PamEnd(handle, pam_data_silent, false);
}

bool PamEnvToExport(std::string_view entry) {
    static constexpr std::string_view kept_names[] = {"SHELL", "LOGNAME", "MAIL", "CDPATH", "IFS", "PATH"};
    const size_t equal = entry.find('=');
    if (entry.size() > export_entry_limit || equal == std::string_view::npos || entry.starts_with("LD_")) {
        return false;
    }
    for (std::string_view name : kept_names) {
        if (entry.substr(0, equal) == name) {
            return false;
        }
    }
    return true;
}

void PamExportEnvironment(char** list) {
    if (list == nullptr) {
        return;
    }
    for (char** entry = list; *entry != nullptr; ++entry) {
        // putenv keeps the string, so an exported entry is not freed.
        if (!PamEnvToExport(*entry) || putenv(*entry) != 0) {
            free(*entry);
        }
    }
    free(list);
}

void PamGetSetEnvironment(pam_handle_t* handle) {
    PamExportEnvironment(pam_calls.getenvlist(handle));
}
