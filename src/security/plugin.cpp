#include "security/plugin.h"

#include <string>

#include "base/memory.h"
#include "security/key_store.h"
#include "security/md5.h"

int check_plugin(std::string_view name, const uint8_t hash[16]) {
    if (name.empty()) {
        return KM_OK;
    }
    for (char c : name) {
        if (c == '/' || static_cast<unsigned char>(c) <= 32) {
            return KM_WRONG_DATA;
        }
    }
    uint8_t found[md5_size];
    if (MD5FileHash(("lib" + std::string(name) + ".so").c_str(), found) != 0) {
        return KM_LIBRARY;
    }
    if (hash != nullptr && !qx_equal_constant_time(found, hash, md5_size)) {
        return KM_PLUGIN_HASH;
    }
    return KM_NOT_IMPLEMENTED;
}
