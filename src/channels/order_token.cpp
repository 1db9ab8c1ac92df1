#include "channels/order_token.h"

#include <cstring>

#include "base/context.h"
#include "base/message_numbers.h"

namespace {

// What the acceptance needs and gives back in any case.
struct acceptance {
    gss_OID_set mechs = nullptr;
    gss_name_t name = nullptr;
    gss_cred_id_t cred = nullptr;
    gss_ctx_id_t context = nullptr;
    gss_buffer_desc answer{};

    ~acceptance() {
        OM_uint32 minor = 0;
        gss_release_buffer(&minor, &answer);
        if (context != nullptr) {
            gss_delete_sec_context(&minor, &context, nullptr);
        }
        if (cred != nullptr) {
            gss_release_cred(&minor, &cred);
        }
        if (name != nullptr) {
            gss_release_name(&minor, &name);
        }
        if (mechs != nullptr) {
            gss_release_oid_set(&minor, &mechs);
        }
    }
};

int failed(const char* function, OM_uint32 major, OM_uint32 minor, qx7_error* error) {
    return qx_error_set(error, -1, static_cast<int>(minor), number_security_call, "%s|%u|%u|", function,
                        major, minor);
}

}  // namespace

int take_order_token(EX_PCX* pcx, std::span<const unsigned char> bytes, gss_cred_id_t* delegated,
                     qx7_error* error) {
    acceptance work;
    OM_uint32 minor = 0;
    OM_uint32 major = gss_create_empty_oid_set(&minor, &work.mechs);
    if (major == GSS_S_COMPLETE) {
        major = gss_add_oid_set_member(&minor, GSS_MECH_KLVT_QX7, &work.mechs);
    }
    if (major != GSS_S_COMPLETE) {
        return failed("gss_add_oid_set_member", major, minor, error);
    }
    const gss_buffer_desc own_name{strlen(pcx->exName), pcx->exName};
    major = gss_import_name(&minor, &own_name, nullptr, &work.name);
    if (major != GSS_S_COMPLETE) {
        return failed("gss_import_name", major, minor, error);
    }
    major = gss_acquire_cred(&minor, work.name, GSS_C_INDEFINITE, work.mechs, GSS_C_ACCEPT, &work.cred,
                             nullptr, nullptr);
    if (major != GSS_S_COMPLETE) {
        return failed("gss_acquire_cred", major, minor, error);
    }
    const gss_buffer_desc token{bytes.size(), const_cast<unsigned char*>(bytes.data())};
    OM_uint32 flags = 0;
    major = gss_accept_sec_context(&minor, &work.context, work.cred, &token, nullptr, nullptr, nullptr,
                                   &work.answer, &flags, nullptr, delegated);
    return major == GSS_S_COMPLETE ? 0 : failed("gss_accept_sec_context", major, minor, error);
}
