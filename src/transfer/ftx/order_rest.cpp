// What an order says in words: codings, and the rest field.
#include <climits>
#include <cstring>

#include "base/code_tables.h"
#include "base/context.h"
#include "base/text.h"
#include "transfer/compress/compress.h"
#include "transfer/ftx/module.h"
#include "transfer/ftx/order_parts.h"
#include "transfer/rest_field.h"

namespace {

constexpr std::string_view wants_empty_folders = "QX_subdirstruct=Y";

struct coding_name {
    std::string_view name;
    char letter;
};
constexpr char coding_table = '1';
constexpr char coding_utf8 = '2';
constexpr coding_name coding_names[] = {{"UTF-8", coding_utf8}, {"UCS-2BE", '3'}, {"UCS-2LE", '4'}};

// 0 for a name that nobody knows.
char coding_of(std::string_view name) {
    for (const coding_name& known : coding_names) {
        if (name == known.name) {
            return known.letter;
        }
    }
    return 0;
}

int number_of(std::string_view text, std::string_view name, int most = INT_MAX) {
    int64_t number = 0;
    return parse_number(GetAttribute(text, name), 1, most, &number) ? static_cast<int>(number) : 0;
}

// The sender that connects may be sent elsewhere.
void read_connection(ftx_entry* ftx, std::string_view text) {
    copy_text(ftx->ftx_attr_connect_name, GetAttribute(text, "connect_name="));
    copy_text(ftx->ftx_attr_connect_ip, GetAttribute(text, "connect_ip="));
    ftx->ftx_attr_connect_port = number_of(text, "connect_port=");
    ftx->ftx_attr_rifreq = number_of(text, "rifreq=");
}

int read_sender_text(const ftx_order& order, std::string_view text, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    if (GetAttribute(text, "nl=").starts_with('m')) {
        ftx->ftx_separate = 'M';
    }
    const std::string_view length = GetAttribute(text, "reclen=");
    const int unit = ftx->ftx_text_coding > coding_utf8 ? 2 : 1;
    ftx->ftx_reclen = number_of(text, "reclen=", compress_record_max / unit);
    return !length.empty() && ftx->ftx_reclen == 0 ? order_refused(order, err) : 0;
}

char line_end_of(std::string_view word) {
    if (word == "lf") {
        return 'L';
    }
    return word == "none" ? 'N' : 'C';
}

char owner_of(std::string_view word, char preset) {
    if (word == "parent") {
        return 'p';
    }
    return word == "user" ? 'u' : preset;
}

void read_receiver_text(ftx_entry* ftx, std::string_view text) {
    const std::string_view line_end = GetAttribute(text, "nl=");
    if (!line_end.empty()) {
        ftx->ftx_separate = line_end_of(line_end);
    }
    ftx->ftx_OwnerUid = owner_of(GetAttribute(text, "uid="), ftx->ftx_OwnerUid);
    ftx->ftx_OwnerGid = owner_of(GetAttribute(text, "gid="), ftx->ftx_OwnerGid);
}

}  // namespace

int ftx_process_codepage(const ftx_order& order, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    if (ftx->ftx_type != ftx_text) {
        return 0;
    }
    const MSG_TYPE_FTXSNDRCV& fields = order.fields();
    const auto source = view_data(order.view, fields.src_code_dist, fields.src_code_len);
    const auto own =
        ftx->is_sender() ? source : view_data(order.view, fields.dst_code_dist, fields.dst_code_len);
    if (own.size() == code_table_message_size) {
        SetCodeTab(ftx->code_table.data(), own.data());
    } else {
        memcpy(ftx->code_table.data(), GetDefaultCode(order.pcx).inverse, ftx->code_table.size());
    }
    ftx->ftx_text_coding = coding_table;
    if (!source.empty() && source.size() != code_table_message_size) {
        ftx->ftx_text_coding =
            coding_of(strip({reinterpret_cast<const char*>(source.data()), source.size()}));
    }
    return ftx->ftx_text_coding == 0 ? order_refused(order, err) : 0;
}

int order_read_rest(const ftx_order& order, qx7_error* err) {
    ftx_entry* ftx = order.entry;
    ftx->ftx_separate = 'L';
    ftx->ftx_OwnerUid = ftx_glb().fgx_Owner_uid;
    ftx->ftx_OwnerGid = ftx_glb().fgx_Owner_gid;
    const std::string_view rest = view_text(order.view, order.fields().rest_dist, order.fields().rest_len);
    std::string text = GetRestField(rest, ftx->is_sender() ? REST_SENDER : REST_RECEIVER);
    if (ftx->is_sender() && text == wants_empty_folders) {
        ftx->ftx_flag |= FTX_SUBDIRSTRUCT;
        return 0;
    }
    ftx->rest_text = std::move(text);
    if (ftx->has(FTX_DIRECT)) {
        read_connection(ftx, ftx->rest_text);
    }
    ftx->simulate_readerror = number_of(ftx->rest_text, "simulate_readerror=");
    ftx->simulate_writeerror = number_of(ftx->rest_text, "simulate_writeerror=");
    if (ftx->ftx_type != ftx_text || ftx->rest_text.empty()) {
        return 0;
    }
    if (ftx->is_sender()) {
        return read_sender_text(order, ftx->rest_text, err);
    }
    read_receiver_text(ftx, ftx->rest_text);
    return 0;
}
