// The password field of a message: ten digits and the enciphered text. The first byte chooses how the rest
// becomes a field: as it is, with a right length in front of it, or enciphered by the rules first. Only the
// account's password opens it, and that always does.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent_side.h"
#include "identity/password_check.h"
#include "security/string_cipher.h"

namespace {

// The account's hash is of a kind that looks at seven bits of eight characters.
bool opens_the_account(std::string_view plain) {
    std::string seen(plain.substr(0, 8));
    for (char& c : seen) {
        c = static_cast<char>(c & 0x7f);
    }
    return std::string_view(seen.c_str()) == sandbox_password;
}

int check(int run, const std::string& field) {
    // Of exactly that size, so that a step behind its end is seen.
    unsigned char* bytes = static_cast<unsigned char*>(malloc(field.empty() ? 1 : field.size()));
    memcpy(bytes, field.data(), field.size());
    std::string text;
    const int result = PasswordCheck(1, run, {bytes, field.size()}, sandbox_user, &text, nullptr);
    free(bytes);
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    EX_PCX& pcx = fuzz_agent();
    pcx.pcx_strt_euid = 0;
    byte_source source(data, size);
    const uint8_t choice = source.byte();
    pcx.pcx_hardened = (choice & 4) != 0 ? 1 : 0;
    const int run = source.byte() * 65537;
    std::string field(source.rest());
    const std::string plain(field.c_str());
    if ((choice & 3) == 1) {
        char digits[16];
        snprintf(digits, sizeof digits, "%010zu", field.size());
        field.insert(0, digits);
    } else if ((choice & 3) == 2) {
        field = build_password_field(run, plain);
    }
    const int result = check(run, field);
    const bool right = opens_the_account(plain);
    if ((choice & 3) == 2 && (result == PASSWORD_ACCEPTED) != right) {
        abort();
    }
    if (result != PASSWORD_ACCEPTED && result != PASSWORD_REFUSED && result != PASSWORD_ERROR) {
        abort();
    }
    return 0;
}
