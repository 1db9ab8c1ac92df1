#include "channels/handshake.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <set>

#include "base/message_numbers.h"
#include "channels/internal.h"
#include "channels/ipc.h"
#include "channels/policy.h"
#include "messages/frame.h"
#include "security/key_exchange.h"
#include "security/key_store.h"
#include "security/md5.h"

namespace {

// Version of the authorization protocol, kept from the last request. Main thread.
int authorization_version = 1;

struct owned_buffer {
    gss_buffer_desc buffer;
    ~owned_buffer() {
        OM_uint32 minor = 0;
        gss_release_buffer(&minor, &buffer);
    }
};

struct owned_context {
    gss_ctx_id_t id = nullptr;
    ~owned_context() {
        OM_uint32 minor = 0;
        gss_delete_sec_context(&minor, &id, nullptr);
    }
    gss_ctx_id_t release() {
        gss_ctx_id_t given = id;
        id = nullptr;
        return given;
    }
};

struct owned_credential {
    gss_cred_id_t id = nullptr;
    ~owned_credential() {
        OM_uint32 minor = 0;
        gss_release_cred(&minor, &id);
    }
};

struct owned_name {
    gss_name_t id = nullptr;
    ~owned_name() {
        OM_uint32 minor = 0;
        gss_release_name(&minor, &id);
    }
};

int mechanism_failure(qx7_error* error, const char* call, OM_uint32 major, OM_uint32 minor) {
    return qx_error_set(error, static_cast<int>(major), static_cast<int>(minor), number_security_call,
                        "%s|%u|%u|", call, major, minor);
}

gss_buffer_desc token_of(const unsigned char* frame, int length) {
    return {static_cast<size_t>(length) - frame_header_size,
            const_cast<unsigned char*>(frame) + frame_header_size};
}

// "Q" and a digit in a request, blanks in an answer.
void note_version(const unsigned char* frame) {
    char coding[9] = "";
    memcpy(coding, frame + offsetof(QX7_PROTOCOL_HEADER, cCoding), 8);
    if (coding[0] == 'Q') {
        authorization_version = atoi(coding + 1);
    }
}

int classify_frame(const unsigned char* frame, int length, int* command, bool* is_token, qx7_error* error) {
    gss_buffer_desc token = token_of(frame, length);
    int result = classifyData(static_cast<const uint8_t*>(token.value), token.length, command, is_token);
    if (result != 0) {
        return qx_error_set(error, -1, result, number_call_failed, "classifyData|%u|",
                            static_cast<unsigned>(result));
    }
    return 0;
}

// The init tokens that were accepted since the start: a token opens one connection. Who keeps or overhears
// one could otherwise open more of them under its name. Only holders of a transfer key add to it. Main
// thread.
struct token_memory {
    static constexpr size_t most = 8192;
    // The part that the token's hash covers; what stands around it could be changed.
    static constexpr size_t first = 18;
    using digest = std::array<uint8_t, 16>;
    std::set<digest> known;
    std::deque<digest> in_order;

    // False when the token was taken before.
    bool take(const gss_buffer_desc& token) {
        if (token.length < gss_init_token_size) {
            return false;
        }
        digest sum;
        MD5Generate(static_cast<const uint8_t*>(token.value) + first, gss_init_token_size - first,
                    sum.data());
        if (!known.insert(sum).second) {
            return false;
        }
        in_order.push_back(sum);
        if (in_order.size() > most) {
            known.erase(in_order.front());
            in_order.pop_front();
        }
        return true;
    }
};
token_memory accepted_tokens;

// Accepts the init token of a frame. 0, and the context and the answering token are the caller's.
int accept_token(EX_PCX* pcx, const unsigned char* frame, int length, gss_ctx_id_t* context,
                 gss_buffer_t answer, qx7_error* error) {
    owned_credential cred;
    OM_uint32 minor = 0;
    OM_uint32 major = gss_acquire_cred(&minor, pcx->pcx_sName, GSS_C_INDEFINITE, nullptr, GSS_C_ACCEPT,
                                       &cred.id, nullptr, nullptr);
    if (major != GSS_S_COMPLETE) {
        return mechanism_failure(error, "gss_acquire_cred", major, minor);
    }
    note_version(frame);
    gss_buffer_desc token = token_of(frame, length);
    owned_credential delegated;
    gss_OID mech = nullptr;
    OM_uint32 flags = 0;
    major = gss_accept_sec_context(&minor, context, cred.id, &token, nullptr, nullptr, &mech, answer, &flags,
                                   nullptr, &delegated.id);
    if (major != GSS_S_COMPLETE) {
        return mechanism_failure(error, "gss_accept_sec_context", major, minor);
    }
    gss_release_OID(&minor, &mech);
    if (!accepted_tokens.take(token)) {
        gss_release_buffer(&minor, answer);
        gss_delete_sec_context(&minor, context, nullptr);
        return mechanism_failure(error, "gss_accept_sec_context", GSS_S_DUPLICATE_TOKEN, GSS_MINOR_PARAMETER);
    }
    return 0;
}

int post_gsshs_ok(ccm_context_t* ccm, int id) {
    ccm_msg_t* msg = ipc_record_alloc(ccm, ipc_gsshs_ok, sizeof(ipcmsg_channel_id_t));
    if (msg == nullptr) {
        return -1;
    }
    memcpy(msg->msg_start + offsetof(ipcmsg_channel_id_t, ID), &id, sizeof id);
    return send_IPC_internal(ccm, msg);
}

int send_gss_bytes(ccm_context_t* ccm, int id, const void* data, size_t length, const char* coding) {
    ccm_msg_t* msg = ccm_msg_alloc_cleared(ccm, static_cast<int>(length), nullptr);
    if (msg == nullptr) {
        return -1;
    }
    memcpy(msg->msg_start, data, length);
    ccm_setaddr(msg, id, 0, "", "", 0);
    return send_GSS_message(ccm, msg, coding);
}

// Gives the channel its context and opens it for sealed traffic. `server` makes a chosen candidate the server
// connection. -1 when the channel has gone or holds a context already; the context stays the caller's then.
int install_context(ccm_context_t* ccm, int id, gss_ctx_id_t context, bool server) {
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    bool free_for_it = channel->pATctx == nullptr;
    if (free_for_it) {
        channel->pATctx = context;
        channel->flag.fetch_or(CH_FLAG_SEALED);
        if (server) {
            channel->type = CH_TYPE_SERVER;
        }
    }
    ccm_channel_unlock(ccm);
    return free_for_it ? 0 : -1;
}

bool is_own_system(const EX_PCX* pcx, const gss_ctx_id_struct& context) {
    return equal_ignore_case(strip(gss_partner_name(context)), strip(field_text(pcx->sysName)));
}

// The initiator's second step.
int process_gss_answer(ccm_context_t* ccm, int id, const ccm_msg_t* msg, qx7_error* error) {
    // The context leaves the channel for the call: the network thread may destroy the channel meanwhile.
    owned_context context;
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    context.id = channel->pATctx;
    channel->pATctx = nullptr;
    ccm_channel_unlock(ccm);
    gss_buffer_desc token = token_of(msg->msg_start, msg->len);
    owned_buffer output;
    OM_uint32 minor = 0;
    OM_uint32 major =
        gss_init_sec_context(&minor, nullptr, &context.id, nullptr, GSS_MECH_KLVT_QX7, 0, GSS_C_INDEFINITE,
                             nullptr, &token, nullptr, &output.buffer, nullptr, nullptr);
    if (major != GSS_S_COMPLETE) {
        return mechanism_failure(error, "gss_init_sec_context", major, minor);
    }
    major = gss_release_buffer(&minor, &output.buffer);
    if (major != GSS_S_COMPLETE) {
        return mechanism_failure(error, "gss_release_buffer", major, minor);
    }
    if (install_context(ccm, id, context.id, false) != 0) {
        return -1;
    }
    context.release();
    return post_gsshs_ok(ccm, id);
}

int answer_init_token(EX_PCX* pcx, ccm_context_t* ccm, int id, int type, const ccm_msg_t* msg,
                      qx7_error* error) {
    owned_context context;
    owned_buffer answer;
    if (accept_token(pcx, msg->msg_start, msg->len, &context.id, &answer.buffer, error) != 0) {
        return -1;
    }
    bool server = type == CH_TYPE_CP_CANDIDATE;
    // A credential that the server once gave to an agent would open a channel too, but under another name.
    if (server && !is_own_system(pcx, *context.id)) {
        std::string name = printable(gss_partner_name(*context.id));
        return qx_error_set(error, -1, 0, number_wrong_system, "%s|", name.c_str());
    }
    // Context, seal and type stand before the answer leaves: the partner may use them at once.
    if (install_context(ccm, id, context.id, server) != 0) {
        return -1;
    }
    context.release();
    if (send_gss_bytes(ccm, id, answer.buffer.value, answer.buffer.length, "") != 0) {
        return -1;
    }
    return post_gsshs_ok(ccm, id);
}

const char* advice_for_refusal(int number) {
    switch (number) {
        case KM_WRITE:
            return "Let the agent's user write the key store's folder and make room there; the server tries "
                   "again at "
                   "the next connection";
        case KM_UNEXPECTED:
            return "Bring the key by an initial package, or set AUTHORIZATION/first_contact to yes until "
                   "there is one";
        case KM_KEY_EXISTS:
            return "The server has lost the agent's key: remove the agent's section from the key store if a "
                   "new one "
                   "is wanted";
        default:
            return "Server and agent need the same system name, company key and agent name";
    }
}

// A start or other package of the key exchange. Only the chosen server process may place a key: anybody else
// who knows the system's name could otherwise own a fresh agent.
int answer_package(EX_PCX* pcx, ccm_context_t* ccm, int id, int type, int command, const ccm_msg_t* msg,
                   qx7_error* error) {
    if (type != CH_TYPE_CP_CANDIDATE) {
        return qx_error_set(error, -1, KM_UNEXPECTED, number_call_failed, "cmdData|%u|",
                            static_cast<unsigned>(KM_UNEXPECTED));
    }
    gss_buffer_desc package = token_of(msg->msg_start, msg->len);
    uint8_t answer[2000];
    size_t answer_length = sizeof answer;
    int result =
        cmdData(&agent_keys(), field_text(pcx->exName), command, static_cast<const uint8_t*>(package.value),
                package.length, answer, &answer_length, nullptr, nullptr);
    if (result == 0) {
        __log(-1,
              "a transfer key was agreed; its fingerprint is %s: compare it with the one in the server's log",
              key_fingerprint(agent_keys(), field_text(pcx->exName)).c_str());
    } else {
        qx_error_set(error, -1, result, number_call_failed, "cmdData|%u|", static_cast<unsigned>(result));
        __log(-1, "no key is agreed with the server: %s. %s", km_explain(agent_keys(), result).c_str(),
              advice_for_refusal(result));
        if (answer_length == 0) {
            return -1;
        }
        __log_error(*error);
        qx_error_clear(error);
    }
    int sent = send_gss_bytes(ccm, id, answer, answer_length, "");
    qx_wipe(answer, sizeof answer);
    return sent;
}

int process_gss_request(EX_PCX* pcx, ccm_context_t* ccm, int id, int type, const ccm_msg_t* msg,
                        qx7_error* error) {
    int command = 0;
    bool is_token = false;
    if (type == CH_TYPE_AGENT) {
        // The called agent answers; one that asks first would turn the roles.
        return qx_error_set(error, -1, KM_UNEXPECTED, number_call_failed, "classifyData|%u|",
                            static_cast<unsigned>(KM_UNEXPECTED));
    }
    if (classify_frame(msg->msg_start, msg->len, &command, &is_token, error) != 0) {
        return -1;
    }
    return is_token ? answer_init_token(pcx, ccm, id, type, msg, error)
                    : answer_package(pcx, ccm, id, type, command, msg, error);
}

// The listener holds no keys: the frame goes to the agent, and nothing more is read from this caller, since
// the socket leaves this process when the agent has accepted it.
int forward_to_agent(ccm_context_t* ccm, const ccm_msg_t* msg) {
    int id = msg->addr.src_ID;
    char name[64];
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    channel->flag.fetch_or(CH_FLAG_NO_READ | CH_FLAG_REQUEST_SENT);
    memcpy(name, channel->name, sizeof name);
    ccm_channel_unlock(ccm);
    __log(number_handshake_frame, "%s/ID=%d", printable(field_text(name)).c_str(), id);
    ipcmsg_gsshs_remote_t record{};
    memcpy(record.header.msgtype, ipc_gsshs_remote, sizeof record.header.msgtype);
    record.listenerID = id;
    record.len = msg->len;
    ccm_msg_t* out = ipc_record_alloc(ccm, ipc_gsshs_remote, static_cast<int>(sizeof record) + msg->len);
    if (out == nullptr) {
        return -1;
    }
    memcpy(out->msg_start, &record, sizeof record);
    memcpy(out->msg_start + sizeof record, msg->msg_start, static_cast<size_t>(msg->len));
    ccm_setaddr(out, 0, 0, ccm_name_ipc_agent, "", 0);
    return send_IPC_message(ccm, out);
}

int gss_request_failed(ccm_context_t* ccm, int id, const qx7_error& error) {
    if (error.qx_msgnr != 0) {
        ccm_channel_failbyID(ccm, id, error.qx_msgnr, "%s", error.qx_msgInsert);
    } else {
        ccm_channel_deletebyID(ccm, id);
    }
    return -1;
}

}  // namespace

bool is_gss_message(const unsigned char* frame, int length) {
    return length >= static_cast<int>(frame_header_size) && frame_protocol_is(frame, protocol_gss);
}

int process_gss_protocol_message(EX_PCX* pcx, ccm_context_t* ccm, ccm_msg_t* msg) {
    if (!ccm_policy_check(pcx, ccm, msg) || !is_gss_message(msg->msg_start, msg->len)) {
        return -1;
    }
    if (pcx->running_mode == MODE_LISTENER) {
        return forward_to_agent(ccm, msg);
    }
    int id = msg->addr.src_ID;
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, id);
    if (channel == nullptr) {
        return -1;
    }
    int type = channel->type.load();
    bool has_context = channel->pATctx != nullptr;
    ccm_channel_unlock(ccm);
    qx7_error error;
    int result = type == CH_TYPE_AGENT && has_context ? process_gss_answer(ccm, id, msg, &error)
                                                      : process_gss_request(pcx, ccm, id, type, msg, &error);
    return result < 0 ? gss_request_failed(ccm, id, error) : result;
}

int gss_request(EX_PCX* pcx, const unsigned char* frame, int length, unsigned char* answer,
                int* answer_length, gss_ctx_id_t* context, qx7_error* error) {
    *context = nullptr;
    int command = 0;
    bool is_token = false;
    if (!is_gss_message(frame, length) || length > ccm_frame_gss_max) {
        return qx_error_set(error, -1, 0, number_call_failed, "classifyData|%u|",
                            static_cast<unsigned>(KM_WRONG_DATA));
    }
    if (classify_frame(frame, length, &command, &is_token, error) != 0) {
        return -1;
    }
    if (!is_token) {
        return qx_error_set(error, -1, 0, number_call_failed, "classifyData|%u|",
                            static_cast<unsigned>(KM_UNEXPECTED));
    }
    owned_context accepted;
    owned_buffer token;
    if (accept_token(pcx, frame, length, &accepted.id, &token.buffer, error) != 0) {
        return -1;
    }
    auto whole = static_cast<int>(frame_header_size + token.buffer.length);
    if (whole > *answer_length || frame_set_header(answer, protocol_gss, whole) != 0) {
        return qx_error_set(error, -1, 0, number_call_failed, "classifyData|%u|",
                            static_cast<unsigned>(KM_BUFFER_SMALL));
    }
    memcpy(answer + frame_header_size, token.buffer.value, token.buffer.length);
    *answer_length = whole;
    *context = accepted.release();
    return 0;
}

int send_gss_request(EX_PCX* pcx, ccm_context_t* ccm, int channel_id, gss_cred_id_t cred) {
    owned_credential owned{cred};
    if (cred == nullptr) {
        return 0;
    }
    ccm_channel_t* channel = ccm_channel_getbyID(ccm, channel_id);
    if (channel == nullptr) {
        return -1;
    }
    bool sent_before = (channel->flag.fetch_or(CH_FLAG_REQUEST_SENT) & CH_FLAG_REQUEST_SENT) != 0;
    ccm_channel_unlock(ccm);
    if (sent_before) {
        return 0;
    }
    qx7_error error;
    owned_name name;
    OM_uint32 minor = 0;
    // The terminating NUL counts in the name's length.
    gss_buffer_desc text{strnlen(pcx->exName, sizeof pcx->exName) + 1, pcx->exName};
    OM_uint32 major = gss_import_name(&minor, &text, GSS_C_NT_MACHINE_UID_NAME, &name.id);
    if (major != GSS_S_COMPLETE) {
        mechanism_failure(&error, "gss_import_name", major, minor);
        return gss_request_failed(ccm, channel_id, error);
    }
    owned_context context;
    owned_buffer token;
    major = gss_init_sec_context(&minor, cred, &context.id, name.id, GSS_MECH_KLVT_QX7, 0, GSS_C_INDEFINITE,
                                 nullptr, nullptr, nullptr, &token.buffer, nullptr, nullptr);
    if (major != GSS_S_COMPLETE && major != GSS_S_CONTINUE_NEEDED) {
        mechanism_failure(&error, "gss_init_sec_context", major, minor);
        return gss_request_failed(ccm, channel_id, error);
    }
    channel = ccm_channel_getbyID(ccm, channel_id);
    if (channel == nullptr) {
        return -1;
    }
    bool free_for_it = channel->pATctx == nullptr;
    if (free_for_it) {
        channel->pATctx = context.release();
    }
    ccm_channel_unlock(ccm);
    char coding[3] = {'Q', static_cast<char>('0' + authorization_version % 10), '\0'};
    if (!free_for_it ||
        send_gss_bytes(ccm, channel_id, token.buffer.value, token.buffer.length, coding) != 0) {
        return gss_request_failed(ccm, channel_id, error);
    }
    return 0;
}
