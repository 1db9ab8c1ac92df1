// The walk both ways over any bytes. It must accept or refuse, leave a little-endian host's bytes alone, and
// what it accepts must be readable by the view.
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "messages/conversion.h"
#include "messages/records_job.h"
#include "messages/records_report.h"
#include "messages/view.h"
#include "messages/walk.h"

namespace {

void read_through_view(const std::vector<unsigned char>& message) {
    message_view view = view_message(message.data(), message.size());
    auto job = view_record<MSG_TYPE_EXAKTJ>(view);
    view_text(view, job.jcl_dist, job.jcl_len);
    table_cursor cursor = view_table(view, job.valuetab_dist);
    for (int i = 0; i < job.valuetab_entries && !cursor.failed; ++i) {
        cursor_text(&cursor, 200);
    }
    auto report = view_record<MSG_TYPE_REP_DATA>(view);
    std::span<const unsigned char> data = view_data(view, report.data_dist, report.data_len);
    if (!data.empty() && data.data() + data.size() > message.data() + message.size()) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool opened = [] {
        static msgconv_ctx_t ctx;
        return msgconv_open(&ctx, nullptr, nullptr, nullptr, nullptr, nullptr, 1) == 0;
    }();
    (void)opened;
    std::vector<unsigned char> message(data, data + size);
    msg_error error;
    for (bool to_lan : {true, false}) {
        int result = walk_message(message.data(), message.size(), to_lan, nullptr, nullptr, &error);
        if (result != walk_accepted && result != walk_warned && result != walk_failed) {
            abort();
        }
        free_warning_list(&error);
    }
    if (std::endian::native == std::endian::little && size > 0 && memcmp(message.data(), data, size) != 0) {
        abort();
    }
    for (walk_check check : {check_to_host, check_to_lan}) {
        walk(message.data(), message.size(), nullptr, {check, 0, order_big, nullptr, nullptr}, &error);
        free_warning_list(&error);
    }
    message.assign(data, data + size);
    read_through_view(message);
    return 0;
}
