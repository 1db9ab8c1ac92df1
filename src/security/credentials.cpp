// Credentials: who one is and under which transfer key.
#include "security/credentials.h"

#include <string.h>

#include <algorithm>
#include <new>

#include "base/text.h"

namespace {

_GSS_Callbacks g_Callbacks = {};

OM_uint32 result(OM_uint32* minor, OM_uint32 minor_value, OM_uint32 major) {
    if (minor != nullptr) {
        *minor = minor_value;
    }
    return major;
}

// Fetches a transfer key by kind of name. 0, GSS_S_NO_CRED or GSS_S_BAD_NAMETYPE.
OM_uint32 fetch_key(OM_uint32* minor, const gss_name_struct& name, uint8_t key[gss_key_size]) {
    std::string_view text(name.m_Name.data(), name.m_Name.size());
    int failed = 0;
    if (gss_compareOID(name.m_NameTypeOID, GSS_C_NT_MACHINE_UID_NAME)) {
        if (g_Callbacks.mf_getKeyEX == nullptr) {
            return result(minor, GSS_MINOR_NO_CALLBACK, GSS_S_NO_CRED);
        }
        failed = g_Callbacks.mf_getKeyEX(text, name.m_Idnr, key);
    } else {
        bool anonymous = gss_compareOID(name.m_NameTypeOID, GSS_C_NT_ANONYMOUS);
        if (!anonymous && !gss_compareOID(name.m_NameTypeOID, GSS_C_NT_USER_NAME)) {
            return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAMETYPE);
        }
        auto* callback = anonymous ? g_Callbacks.mf_getDefKeyGUI : g_Callbacks.mf_getKeyGUI;
        if (callback == nullptr) {
            return result(minor, GSS_MINOR_NO_CALLBACK, GSS_S_NO_CRED);
        }
        // The first byte of such a name is the separator of the rest.
        failed = callback(split_words(text.substr(1), text[0]), key);
    }
    return failed == 0 ? result(minor, 0, GSS_S_COMPLETE) : result(minor, GSS_MINOR_CALLBACK, GSS_S_NO_CRED);
}

void fill_entry(gss_cred_entry* entry, std::string_view name, int usage) {
    entry->m_UsageCode = static_cast<uint8_t>(usage);
    copy_text(entry->m_CredName, name);
}

bool usage_is_good(int usage) {
    return usage == GSS_C_BOTH || usage == GSS_C_INITIATE || usage == GSS_C_ACCEPT;
}

// Entry 1 of a credential that has only its own.
gss_cred_entry* second_entry(gss_cred_id_t cred) {
    return cred == nullptr || cred->m_CredAry_Cnt != 1 ? nullptr : &cred->m_CredAry[1];
}

}  // namespace

const _GSS_Callbacks& gss_callbacks() {
    return g_Callbacks;
}

void gss_setCallbacks(const _GSS_Callbacks* callbacks) {
    g_Callbacks = callbacks == nullptr ? _GSS_Callbacks{} : *callbacks;
}

OM_uint32 gss_acquire_cred(OM_uint32* minor, gss_name_t name, OM_uint32, gss_OID_set mechs, int usage,
                           gss_cred_id_t* cred, gss_OID_set* actual_mechs, OM_uint32* actual_time) {
    if (cred == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *cred = nullptr;
    if (actual_mechs != nullptr) {
        *actual_mechs = nullptr;
    }
    if (name == nullptr || name->m_Name.empty() || !gss_compareOID(name->m_MechOID, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    if (!usage_is_good(usage)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    int wanted = 1;
    if (mechs != nullptr && !mechs->members.empty()) {
        gss_test_oid_set_member(minor, GSS_MECH_KLVT_QX7, mechs, &wanted);
    }
    if (!wanted) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    qx_secret<gss_key_size> key;
    OM_uint32 major = fetch_key(minor, *name, key.data());
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    major =
        gss_acquire_cred_with_key(minor, {name->m_Name.data(), name->m_Name.size()}, key.data(), usage, cred);
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    (*cred)->m_NameTypeOID = name->m_NameTypeOID;
    if (actual_time != nullptr) {
        *actual_time = GSS_C_INDEFINITE;
    }
    return actual_mechs == nullptr ? major : gss_indicate_mechs(minor, actual_mechs);
}

OM_uint32 gss_acquire_cred_with_key(OM_uint32* minor, std::string_view name, const uint8_t key[gss_key_size],
                                    int usage, gss_cred_id_t* cred) {
    if (cred == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *cred = nullptr;
    if (!usage_is_good(usage)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    auto* made = new (std::nothrow) gss_cred_id_struct;
    if (made == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    made->m_CredAry_Cnt = 1;
    made->m_NameTypeOID = GSS_C_NT_MACHINE_UID_NAME;
    fill_entry(&made->m_CredAry[0], name, usage);
    memcpy(made->m_CredAry[0].m_TransferKey.data(), key, gss_key_size);
    *cred = made;
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_add_cred(OM_uint32* minor, gss_cred_id_t input, gss_name_t name, gss_OID mech, int usage,
                       OM_uint32, OM_uint32, gss_cred_id_t* output, gss_OID_set* actual_mechs,
                       OM_uint32* initiator_rec, OM_uint32* acceptor_rec) {
    if (actual_mechs != nullptr) {
        *actual_mechs = nullptr;
    }
    if (mech != nullptr && !gss_compareOID(mech, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    if (name == nullptr || name->m_Name.empty()) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    qx_secret<gss_key_size> key;
    OM_uint32 major = fetch_key(minor, *name, key.data());
    if (major != GSS_S_COMPLETE) {
        return major;
    }
    gss_cred_id_t target = input;
    if (output != nullptr) {
        major = gss_duplicateCred(minor, input, output);
        if (major != GSS_S_COMPLETE) {
            return major;
        }
        target = *output;
    }
    major =
        gss_add_cred_with_key(minor, target, {name->m_Name.data(), name->m_Name.size()}, key.data(), usage);
    if (major != GSS_S_COMPLETE) {
        if (output != nullptr) {
            gss_release_cred(nullptr, output);
        }
        return major;
    }
    for (OM_uint32* lifetime : {initiator_rec, acceptor_rec}) {
        if (lifetime != nullptr) {
            *lifetime = GSS_C_INDEFINITE;
        }
    }
    return actual_mechs == nullptr ? major : gss_indicate_mechs(minor, actual_mechs);
}

OM_uint32 gss_add_cred_with_key(OM_uint32* minor, gss_cred_id_t cred, std::string_view name,
                                const uint8_t key[gss_key_size], int usage) {
    if (cred == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CRED);
    }
    gss_cred_entry* entry = second_entry(cred);
    if (entry == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_DUPLICATE_ELEMENT);
    }
    if (!usage_is_good(usage)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    fill_entry(entry, name, usage);
    memcpy(entry->m_TransferKey.data(), key, gss_key_size);
    cred->m_CredAry_Cnt = 2;
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_inquire_cred(OM_uint32* minor, gss_cred_id_t cred, gss_name_t* name, OM_uint32* lifetime,
                           int* usage, gss_OID_set* mechs) {
    if (mechs != nullptr) {
        *mechs = nullptr;
    }
    OM_uint32 major =
        gss_inquire_cred_by_mech(minor, cred, GSS_MECH_KLVT_QX7, name, lifetime, nullptr, usage);
    if (major != GSS_S_COMPLETE || mechs == nullptr) {
        return major;
    }
    return gss_indicate_mechs(minor, mechs);
}

OM_uint32 gss_inquire_cred_by_mech(OM_uint32* minor, gss_cred_id_t cred, gss_OID mech, gss_name_t* name,
                                   OM_uint32* initiator_lifetime, OM_uint32* acceptor_lifetime, int* usage) {
    if (name != nullptr) {
        *name = nullptr;
    }
    if (cred == nullptr || cred->m_CredAry_Cnt == 0) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CRED);
    }
    if (mech != nullptr && !gss_compareOID(mech, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    const gss_cred_entry& entry = cred->m_CredAry[0];
    for (OM_uint32* lifetime : {initiator_lifetime, acceptor_lifetime}) {
        if (lifetime != nullptr) {
            *lifetime = GSS_C_INDEFINITE;
        }
    }
    if (usage != nullptr) {
        *usage = entry.m_UsageCode;
    }
    if (name == nullptr) {
        return result(minor, 0, GSS_S_COMPLETE);
    }
    gss_buffer_desc text{strlen(entry.m_CredName), const_cast<char*>(entry.m_CredName)};
    return gss_import_name(minor, &text, cred->m_NameTypeOID, name);
}

OM_uint32 gss_duplicateCred(OM_uint32* minor, gss_cred_id_t source, gss_cred_id_t* copy) {
    if (copy == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *copy = nullptr;
    if (source == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_NO_CRED);
    }
    *copy = new (std::nothrow) gss_cred_id_struct(*source);
    return *copy == nullptr ? result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE)
                            : result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_release_cred(OM_uint32* minor, gss_cred_id_t* cred) {
    if (cred != nullptr) {
        delete *cred;
        *cred = nullptr;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}
