#include "fake_pam.h"

#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "identity/pam.h"

struct pam_handle {
    pam_conv conversation;
    void (*delay)(int, unsigned, void*) = nullptr;
};

namespace {

fake_pam_state state;

int note(const char* call, int result) {
    state.calls.emplace_back(call);
    return result;
}

void converse(const pam_handle_t* handle, const std::vector<int>& styles) {
    std::vector<pam_message> messages;
    for (int style : styles) {
        messages.push_back({style, "Password: "});
    }
    std::vector<const pam_message*> pointers;
    for (const pam_message& message : messages) {
        pointers.push_back(&message);
    }
    pam_response* responses = nullptr;
    const int count = static_cast<int>(messages.size());
    state.conversation_result =
        handle->conversation.conv(count, pointers.data(), &responses, handle->conversation.appdata_ptr);
    for (int i = 0; responses != nullptr && i < count; ++i) {
        state.answers.emplace_back(responses[i].resp == nullptr ? "-" : responses[i].resp);
        free(responses[i].resp);
    }
    free(responses);
}

}  // namespace

extern "C" {

fake_pam_state* fake_pam_script() {
    return &state;
}

int pam_start(const char* service, const char*, const pam_conv* conversation, pam_handle_t** handle) {
    state.service = service;
    if (state.start == 0) {
        *handle = new pam_handle{*conversation};
        ++state.open_handles;
    }
    return note("start", state.start);
}

int pam_end(pam_handle_t* handle, int status) {
    state.end_status = status;
    --state.open_handles;
    delete handle;
    return note("end", state.end);
}

int pam_authenticate(pam_handle_t* handle, int) {
    if (!state.styles.empty()) {
        converse(handle, state.styles);
    }
    if (state.changes_groups) {
        const gid_t groups[] = {4711, 4712};
        (void)!setgroups(2, groups);
    }
    if (state.authenticate != 0 && handle->delay == nullptr) {
        ++state.sleeps;
    } else if (state.authenticate != 0) {
        handle->delay(state.authenticate, 2000000, nullptr);
    }
    return note("authenticate", state.authenticate);
}

int pam_acct_mgmt(pam_handle_t*, int) {
    return note("acct_mgmt", state.acct_mgmt);
}

int pam_chauthtok(pam_handle_t* handle, int flags) {
    if (state.asks_in_chauthtok) {
        converse(handle, {PAM_PROMPT_ECHO_OFF});
    }
    return note(flags == PAM_CHANGE_EXPIRED_AUTHTOK ? "chauthtok" : "chauthtok with wrong flags",
                state.chauthtok);
}

int pam_setcred(pam_handle_t*, int flags) {
    return note(flags == PAM_DELETE_CRED ? "delete credentials" : "set credentials", state.setcred);
}

int pam_get_item(const pam_handle_t*, int, const void**) {
    return 0;
}

int pam_open_session(pam_handle_t*, int) {
    return note("open_session", state.open_session);
}

int pam_set_item(pam_handle_t* handle, int item, const void* value) {
    if (item == PAM_FAIL_DELAY) {
        handle->delay = reinterpret_cast<void (*)(int, unsigned, void*)>(const_cast<void*>(value));
    }
    return 0;
}

const char* pam_strerror(pam_handle_t*, int status) {
    static char text[32];
    strcpy(text, "fake failure ");
    text[13] = static_cast<char>('0' + status / 10 % 10);
    text[14] = static_cast<char>('0' + status % 10);
    text[15] = 0;
    return text;
}

char** pam_getenvlist(pam_handle_t*) {
    char** list = static_cast<char**>(calloc(state.environment.size() + 1, sizeof(char*)));
    for (size_t i = 0; list != nullptr && i < state.environment.size(); ++i) {
        list[i] = strdup(state.environment[i].c_str());
    }
    return list;
}
}
