// The initial package: keys that an administrator hands to a new agent in a file.
#include <string.h>

#include <algorithm>

#include "base/text.h"
#include "security/aes.h"
#include "security/key_store.h"
#include "security/md5.h"
#include "security/plugin.h"
#include "security/reference.h"
#include "security/token.h"

namespace {

constexpr uint8_t package_mark = 9;
constexpr uint32_t package_version = 1;

// Takes fields off the front of a package; once something is missing, everything is.
struct reader {
    std::string_view rest;
    bool good = true;

    std::string_view take(size_t length) {
        if (!good || rest.size() < length) {
            good = false;
            return {};
        }
        std::string_view part = rest.substr(0, length);
        rest.remove_prefix(length);
        return part;
    }
    uint32_t number() {
        std::string_view part = take(4);
        return good ? TransToUInt32(reinterpret_cast<const uint8_t*>(part.data())) : 0;
    }
    std::string_view text() {
        size_t end = rest.find('\0');
        std::string_view part = take(end == std::string_view::npos ? rest.size() + 1 : end + 1);
        return good ? part.substr(0, end) : part;
    }
    void copy(uint8_t* out, size_t length) {
        std::string_view part = take(length);
        if (good) {
            memcpy(out, part.data(), length);
        }
    }
};

// The password, zero-padded to a length that is one of a key. 5017 when it is empty or too long.
int package_key(std::string_view password, qx_secret<gss_key_size>* key, size_t* length) {
    if (password.empty() || password.size() > gss_key_size) {
        return KM_PASSWORD;
    }
    memcpy(key->data(), password.data(), password.size());
    *length = password.size() <= 16 ? 16 : 32;
    return KM_OK;
}

int decipher_package(qx_secret_text* content, std::string_view password) {
    qx_secret<gss_key_size> key;
    size_t length = 0;
    int number = package_key(password, &key, &length);
    if (number != KM_OK) {
        return number;
    }
    auto* bytes = reinterpret_cast<uint8_t*>(content->data());
    return gss_AESDecrypt(key.data(), length, bytes, content->size()) == 0 ? KM_OK : KM_DECRYPT;
}

}  // namespace

int parse_initial_package(std::span<const uint8_t> package, std::string_view password, initial_package* out) {
    if (package.empty() || package.size() > initial_package_max) {
        return KM_WRONG_DATA;
    }
    if (package[0] != package_mark) {
        return KM_VERSION;
    }
    qx_secret_text content;
    if (!content.assign({reinterpret_cast<const char*>(package.data()) + 1, package.size() - 1})) {
        return KM_MEMORY;
    }
    if (!password.empty()) {
        int number = decipher_package(&content, password);
        if (number != KM_OK) {
            return number;
        }
    }
    reader in{content.view()};
    if (in.take(sizeof g_RefCode) != std::string_view(g_RefCode, sizeof g_RefCode)) {
        return password.empty() ? KM_WRONG_DATA : KM_DECRYPT;
    }
    uint32_t version = in.number();
    out->flags = in.number();
    out->name = in.text();
    out->plugin = in.text();
    out->attributes = in.text();
    in.copy(out->plugin_hash, sizeof out->plugin_hash);
    in.copy(out->company_key.data(), gss_key_size);
    in.copy(out->transfer_key.data(), gss_key_size);
    if (!in.good) {
        return KM_WRONG_DATA;
    }
    return version == package_version ? KM_OK : KM_VERSION;
}

std::string build_initial_package(const initial_package& content, std::string_view password) {
    std::string plain(g_RefCode, sizeof g_RefCode);
    uint8_t number[4];
    auto add_number = [&](uint32_t value) {
        UInt32ToTrans(value, number);
        plain.append(reinterpret_cast<char*>(number), 4);
    };
    add_number(package_version);
    add_number(content.flags);
    for (const std::string* text : {&content.name, &content.plugin, &content.attributes}) {
        plain.append(text->c_str(), strlen(text->c_str()) + 1);
    }
    plain.append(reinterpret_cast<const char*>(content.plugin_hash), sizeof content.plugin_hash);
    plain.append(reinterpret_cast<const char*>(content.company_key.data()), gss_key_size);
    plain.append(reinterpret_cast<const char*>(content.transfer_key.data()), gss_key_size);
    if (!password.empty()) {
        qx_secret<gss_key_size> key;
        size_t length = 0;
        if (package_key(password, &key, &length) != KM_OK) {
            return {};
        }
        plain.resize((plain.size() + aes_block_size - 1) / aes_block_size * aes_block_size, '\0');
        gss_AESEncrypt(key.data(), length, reinterpret_cast<uint8_t*>(plain.data()), plain.size());
    }
    plain.insert(plain.begin(), static_cast<char>(package_mark));
    return plain.size() > initial_package_max ? std::string() : plain;
}

int ImportKey(key_manager* keys, std::span<const uint8_t> package, std::string_view password) {
    if (!keys->open) {
        return KM_NOT_INITIALIZED;
    }
    initial_package content;
    int number = parse_initial_package(package, password, &content);
    if (number != KM_OK) {
        return number;
    }
    bool company_only = (content.flags & initial_package_company_only) != 0;
    if (!company_only && !equal_ignore_case(content.name, keys->exName)) {
        return KM_WRONG_DATA;
    }
    number = check_plugin(content.plugin, content.plugin_hash);
    if (number != KM_OK) {
        return number;
    }
    number = KCinit(keys, content.company_key.span());
    if (number == KM_OK) {
        number = setEncKey(keys, "CompanyKey", 0, content.company_key.data(), gss_key_size, KEY_TYPE_COMPANY);
    }
    if (number == KM_OK && !company_only) {
        number = set_transfer_key(keys, keys->exName, content.transfer_key.data());
    }
    return number;
}
