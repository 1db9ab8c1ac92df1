#include "message_text.h"

#include <fmt/format.h>

#include "log/message_library.h"
#include "security/key_reason.h"
#include "security/key_store.h"

namespace {

struct text_row {
    int number;
    const char* text;
};

constexpr text_row texts[] = {
#include "message_texts.inc"
};

std::string_view without_bars(std::string_view inserts) {
    const size_t end = inserts.find_last_not_of("| ");
    return inserts.substr(0, end == std::string_view::npos ? 0 : end + 1);
}

}  // namespace

std::string cp_message_text(int number, std::string_view inserts) {
    if (number == 0) {
        return std::string{without_bars(inserts)};
    }
    if (number >= KM_UNKNOWN && number <= KM_KEY_EXISTS) {
        return fmt::format("{} ({})", km_reason_text(number), number);
    }
    for (const text_row& row : texts) {
        if (row.number == number) {
            return fmt::format("{} (U{:08})", zuhelp_fill(row.text, inserts), number);
        }
    }
    return fmt::format("U{:08} {}", number, without_bars(inserts));
}
