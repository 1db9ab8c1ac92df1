// Object identifiers, buffers, sets, names and status texts.
#include <string.h>

#include <new>

#include "base/text.h"
#include "security/key_store.h"
#include "security/mechanism.h"

namespace {

// 1.3.6.1.4.1.99999.1.1
constexpr uint8_t mechanism_bytes[10] = {0x2B, 0x06, 0x01, 0x04, 0x01, 0x86, 0x8D, 0x1F, 0x01, 0x01};
constexpr gss_OID_desc mechanism{10, mechanism_bytes};

// RFC 2744, appendix A
constexpr uint8_t user_name_bytes[10] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x01, 0x01};
constexpr uint8_t machine_uid_bytes[10] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x01, 0x02};
constexpr uint8_t anonymous_bytes[6] = {0x2B, 0x06, 0x01, 0x05, 0x06, 0x03};
constexpr gss_OID_desc user_name{10, user_name_bytes};
constexpr gss_OID_desc machine_uid{10, machine_uid_bytes};
constexpr gss_OID_desc anonymous{6, anonymous_bytes};

OM_uint32 result(OM_uint32* minor, OM_uint32 minor_value, OM_uint32 major) {
    if (minor != nullptr) {
        *minor = minor_value;
    }
    return major;
}

// The constant of this program that equals the identifier given, or null.
gss_OID known_identifier(gss_OID oid) {
    for (gss_OID known :
         {GSS_MECH_KLVT_QX7, GSS_C_NT_MACHINE_UID_NAME, GSS_C_NT_USER_NAME, GSS_C_NT_ANONYMOUS}) {
        if (gss_compareOID(known, oid)) {
            return known;
        }
    }
    return nullptr;
}

OM_uint32 fill_buffer(OM_uint32* minor, const void* data, size_t length, gss_buffer_t buffer) {
    auto* copy = static_cast<char*>(mem_alloc_copy(data, length));
    buffer->length = copy == nullptr ? 0 : length;
    buffer->value = copy;
    return copy == nullptr ? result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE)
                           : result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 make_set(OM_uint32* minor, std::initializer_list<gss_OID> members, gss_OID_set* set) {
    if (set == nullptr) {
        return result(minor, 0, GSS_S_COMPLETE);
    }
    OM_uint32 major = gss_create_empty_oid_set(minor, set);
    if (major == GSS_S_COMPLETE) {
        (*set)->members = members;
    }
    return major;
}

constexpr const char* g_routErrorTxt[] = {"Operation completed normaly",
                                          "A bad mech type has been given",
                                          "A bad name has been given",
                                          "A bad nametype has been given",
                                          "Bad binding have been given",
                                          "A bad status has been given",
                                          "A bad signature has been given",
                                          "No credentials have been given",
                                          "No context have been given",
                                          "A defective token has been given",
                                          "Defective credentials have been given",
                                          "The given credentials have been expired",
                                          "The given context has been expired",
                                          "An error has been occured in this operation",
                                          "Bad QOP value has been given",
                                          "This call is not authorized",
                                          "This operation is not available",
                                          "Duplicate element detected",
                                          "The name has not been accepted"};

constexpr const char* supplementary_texts[] = {"Further processing is needed", "got this token twice",
                                               "this is an old token", "this token is out of sequence",
                                               "this is a gap token"};

constexpr const char* g_mechErrorTxt[] = {
    "A mandatory output parameter is missing (pointer == NULL)",
    "A parameter value is faulty",
    "Out of memory - can't complete the operation",
    "Error returned by the QX7 callback routine",
    "Internal error in the cryptolibrary",
    "The calculated MD5 hash value is different to the token one",
    "Decryption failed - are you using the wrong key's ?",
    "Wrong version of the received token - using an old one ?",
    "The accept of the token failed - security context not established!",
    "The QX7 callback routine cannot be found - have you called gss_setCallbacks()yet ?",
    "The given credential token is faulty",
    "Wrong transferkey given - try with utilCredentials again!",
    "Insufficent QOP set - while GSS_C_CONF_FLAG in context given!",
    "error in keymanagement during callback call detected",
    "the plugin hash code is incorrect",
    "error in byteordering detected"};
constexpr OM_uint32 first_mechanism_error = 1001;

constexpr char unknown_text[] = "No Errortext defined for this kind of error";

}  // namespace

const gss_OID GSS_MECH_KLVT_QX7 = &mechanism;
const gss_OID GSS_C_NT_MACHINE_UID_NAME = &machine_uid;
const gss_OID GSS_C_NT_USER_NAME = &user_name;
const gss_OID GSS_C_NT_ANONYMOUS = &anonymous;

// ---- names

OM_uint32 gss_import_name(OM_uint32* minor, const gss_buffer_desc* input, gss_OID type, gss_name_t* output) {
    if (output == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *output = nullptr;
    if (input == nullptr || input->value == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    std::string_view text(static_cast<const char*>(input->value), input->length);
    while (!text.empty() && text.back() == '\0') {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    gss_OID known = type == nullptr ? GSS_C_NT_MACHINE_UID_NAME : known_identifier(type);
    if (known == nullptr || known == GSS_MECH_KLVT_QX7) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAMETYPE);
    }
    auto* name = new (std::nothrow) gss_name_struct;
    if (name == nullptr) {
        return result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE);
    }
    name->m_MechOID = GSS_MECH_KLVT_QX7;
    name->m_NameTypeOID = known;
    name->m_Name.assign(text.begin(), text.end());
    *output = name;
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_compare_name(OM_uint32* minor, gss_name_t a, gss_name_t b, int* equal) {
    if (equal == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *equal = 0;
    if (a == nullptr || b == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    *equal = a->m_NameTypeOID == b->m_NameTypeOID && a->m_Name == b->m_Name && a->m_Idnr == b->m_Idnr;
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_duplicate_name(OM_uint32* minor, gss_name_t source, gss_name_t* copy) {
    if (copy == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *copy = nullptr;
    if (source == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    *copy = new (std::nothrow) gss_name_struct(*source);
    return *copy == nullptr ? result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE)
                            : result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_release_name(OM_uint32* minor, gss_name_t* name) {
    if (name != nullptr) {
        delete *name;
        *name = nullptr;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_inquire_names_for_mech(OM_uint32* minor, gss_OID mech, gss_OID_set* types) {
    if (types == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *types = nullptr;
    if (mech != nullptr && !gss_compareOID(mech, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    return make_set(minor, {GSS_C_NT_MACHINE_UID_NAME, GSS_C_NT_USER_NAME, GSS_C_NT_ANONYMOUS}, types);
}

OM_uint32 gss_inquire_mechs_for_name(OM_uint32* minor, gss_name_t name, gss_OID_set* mechs) {
    if (mechs == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *mechs = nullptr;
    if (name == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    return make_set(minor, {GSS_MECH_KLVT_QX7}, mechs);
}

OM_uint32 gss_display_name(OM_uint32* minor, gss_name_t name, gss_buffer_t text, gss_OID* type) {
    if (text == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *text = {};
    if (name == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_NAME);
    }
    if (type != nullptr) {
        *type = name->m_NameTypeOID;
    }
    return fill_buffer(minor, name->m_Name.data(), name->m_Name.size(), text);
}

OM_uint32 gss_export_name(OM_uint32* minor, gss_name_t name, gss_buffer_t output) {
    return gss_display_name(minor, name, output, nullptr);
}

OM_uint32 gss_canonicalize_name(OM_uint32* minor, gss_name_t name, gss_OID mech, gss_name_t* output) {
    if (mech != nullptr && !gss_compareOID(mech, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    return gss_duplicate_name(minor, name, output);
}

// ---- buffers and sets

OM_uint32 gss_release_buffer(OM_uint32* minor, gss_buffer_t buffer) {
    if (buffer != nullptr) {
        qx_wipe(buffer->value, buffer->length);
        free(buffer->value);
        *buffer = {};
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_create_empty_oid_set(OM_uint32* minor, gss_OID_set* set) {
    if (set == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *set = new (std::nothrow) gss_OID_set_desc;
    return *set == nullptr ? result(minor, GSS_MINOR_MEMORY, GSS_S_FAILURE)
                           : result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_add_oid_set_member(OM_uint32* minor, gss_OID member, gss_OID_set* set) {
    gss_OID known = member == nullptr ? nullptr : known_identifier(member);
    if (set == nullptr || *set == nullptr || known == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    int present = 0;
    gss_test_oid_set_member(minor, known, *set, &present);
    if (!present) {
        (*set)->members.push_back(known);
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_test_oid_set_member(OM_uint32* minor, gss_OID member, gss_OID_set set, int* present) {
    if (present == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *present = 0;
    if (set == nullptr || member == nullptr) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_FAILURE);
    }
    for (gss_OID held : set->members) {
        *present |= gss_compareOID(held, member);
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_release_oid_set(OM_uint32* minor, gss_OID_set* set) {
    if (set != nullptr) {
        delete *set;
        *set = nullptr;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_release_OID(OM_uint32* minor, gss_OID* oid) {
    if (oid != nullptr) {
        *oid = nullptr;
    }
    return result(minor, 0, GSS_S_COMPLETE);
}

bool gss_compareOID(gss_OID a, gss_OID b) {
    if (a == b) {
        return true;
    }
    return a != nullptr && b != nullptr && a->length == b->length &&
           memcmp(a->elements, b->elements, a->length) == 0;
}

OM_uint32 gss_copyOID(OM_uint32* minor, gss_OID source, gss_OID* copy) {
    if (copy == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *copy = source == nullptr ? nullptr : known_identifier(source);
    return *copy == nullptr ? result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH)
                            : result(minor, 0, GSS_S_COMPLETE);
}

OM_uint32 gss_indicate_mechs(OM_uint32* minor, gss_OID_set* mechs) {
    if (mechs == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    return make_set(minor, {GSS_MECH_KLVT_QX7}, mechs);
}

// ---- texts

const char* gss_minor_text(OM_uint32 minor) {
    if (minor == 0) {
        return g_routErrorTxt[0];
    }
    if (minor >= first_mechanism_error && minor < first_mechanism_error + std::size(g_mechErrorTxt)) {
        return g_mechErrorTxt[minor - first_mechanism_error];
    }
    const char* text =
        minor >= KM_UNKNOWN && minor <= KM_KEY_EXISTS ? km_error_text(static_cast<int>(minor)) : "";
    return *text == '\0' ? unknown_text : text;
}

OM_uint32 gss_display_status(OM_uint32* minor, OM_uint32 status, int type, gss_OID mech,
                             OM_uint32* message_context, gss_buffer_t text) {
    if (text == nullptr || message_context == nullptr) {
        return result(minor, GSS_MINOR_OUTPUT_MISSING, GSS_S_FAILURE);
    }
    *text = {};
    if (mech != nullptr && !gss_compareOID(mech, GSS_MECH_KLVT_QX7)) {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_MECH);
    }
    const char* found = unknown_text;
    if (type == GSS_C_MECH_CODE) {
        *message_context = 0;
        found = gss_minor_text(status);
    } else if (type == GSS_C_GSS_CODE) {
        // The routine's error is text 0, the supplementary bits follow one by one.
        OM_uint32 routine = status >> 16, bits = status & 0x1F, at = *message_context;
        if (at == 0 && (routine != 0 || bits == 0)) {
            found = routine < std::size(g_routErrorTxt) && (status & 0xFFE0) == 0 ? g_routErrorTxt[routine]
                                                                                  : unknown_text;
            *message_context = bits != 0 ? 1 : 0;
        } else {
            OM_uint32 bit = at == 0 ? 0 : at - 1;
            while (bit < 5 && ((bits >> bit) & 1) == 0) {
                ++bit;
            }
            found = bit < 5 ? supplementary_texts[bit] : unknown_text;
            *message_context = bit < 5 && (bits >> (bit + 1)) != 0 ? bit + 2 : 0;
        }
    } else {
        return result(minor, GSS_MINOR_PARAMETER, GSS_S_BAD_STATUS);
    }
    return fill_buffer(minor, found, strlen(found), text);
}
