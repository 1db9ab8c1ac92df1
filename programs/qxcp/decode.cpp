#include "decode.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "json_text.h"
#include "messages/conversion.h"
#include "messages/frame.h"
#include "messages/head.h"
#include "messages/records_connection.h"

namespace {

constexpr size_t output_block = 1 << 20;
constexpr size_t input_block = 1 << 18;

std::string_view text_view(const unsigned char* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// ---- fields ----

// Writes the fields of a walk as they are met. `closers` are the brackets that are still open, for a walk
// that ends early.
struct field_writer {
    std::string* out;
    std::string closers;
    const unsigned char* end;              // of the message
    const char* structure = "";            // of the record being written
    const unsigned char* paths = nullptr;  // first byte of a record of cache paths
};

void open_bracket(field_writer* writer, char open, char close) {
    *writer->out += open;
    writer->closers += close;
}

void close_bracket(field_writer* writer) {
    *writer->out += writer->closers.back();
    writer->closers.pop_back();
}

// In front of a value: its name, or in a table only the comma.
void begin_value(field_writer* writer, const walk_field& field) {
    bool in_table = !writer->closers.empty() && writer->closers.back() == ']';
    if (!in_table) {
        json_append_name(writer->out, field.element->name);
    } else if (writer->out->back() != '[') {
        *writer->out += ',';
    }
}

void write_integer(std::string* out, const walk_field& field) {
    uint64_t value = 0;
    for (size_t i = 0; i < field.size; ++i) {
        value |= static_cast<uint64_t>(field.data[field.big_endian ? field.size - 1 - i : i]) << (8 * i);
    }
    if (field.element->type == el_unsigned) {
        json_append_number(out, value);
        return;
    }
    unsigned unused = 64 - 8 * static_cast<unsigned>(field.size);
    json_append_number(out, static_cast<int64_t>(value << unused) >> unused);
}

// A padded text without its blanks; one that NUL bytes pad counts too.
void write_padded(std::string* out, std::string_view bytes) {
    size_t length = bytes.size();
    while (length > 0 && bytes[length - 1] == '\0') {
        --length;
    }
    while (length > 0 && bytes[length - 1] == ' ') {
        --length;
    }
    std::string_view text = bytes.substr(0, length);
    json_append_bytes(out, text.find('\0') == std::string_view::npos ? text : bytes);
}

// The two cache paths are fields of 512 bytes, of which the walk looks only at the texts.
std::string_view cache_path(field_writer* writer, const walk_field& field) {
    constexpr size_t width = 512;
    bool first = strcmp(field.element->name, "task_cache_path") == 0;
    if (first) {
        writer->paths = field.data;
    }
    size_t there = static_cast<size_t>(writer->end - writer->paths);
    size_t start = std::min(first ? 0 : width, there);
    return text_view(writer->paths + start, std::min(width, there - start));
}

void write_value(field_writer* writer, const walk_field& field) {
    std::string_view bytes = text_view(field.data, field.size);
    switch (field.element->type) {
        case el_signed:
        case el_unsigned:
            write_integer(writer->out, field);
            return;
        case el_text_padded:
        case el_zoned:
            write_padded(writer->out, bytes);
            return;
        case el_text_ended:
            if (strcmp(writer->structure, "BINPATHS") == 0) {
                bytes = cache_path(writer, field);
            }
            json_append_bytes(writer->out, bytes.substr(0, bytes.find('\0')));
            return;
        default:
            json_append_bytes(writer->out, bytes);
            return;
    }
}

void write_field(void* context, const walk_field& field) {
    field_writer* writer = static_cast<field_writer*>(context);
    switch (field.event) {
        case walk_value:
            begin_value(writer, field);
            write_value(writer, field);
            return;
        case walk_table_begin:
            json_append_name(writer->out, field.element->name);
            open_bracket(writer, '[', ']');
            return;
        case walk_struct_begin:
            begin_value(writer, field);
            writer->structure = field.element->structure;
            open_bracket(writer, '{', '}');
            return;
        case walk_struct_end:
            writer->structure = "";
            close_bracket(writer);
            return;
        case walk_table_end:
            close_bracket(writer);
            return;
    }
}

// ---- one message ----

void append_warnings(std::string* out, const msg_error& error) {
    json_append_name(out, "warnings");
    *out += '[';
    for (uint64_t i = 0; i < error.warning_list.length; ++i) {
        const err_element_t& warning = error.warning_list.list[i];
        *out += i == 0 ? "{" : ",{";
        json_append_name(out, "number");
        json_append_number(out, int64_t{warning.code});
        json_append_name(out, "insert");
        json_append_bytes(out, warning.subst);
        *out += '}';
    }
    *out += ']';
}

void append_head(std::string* out, std::span<const unsigned char> message) {
    QX_HEADM head;
    memset(&head, 0, sizeof head);
    memcpy(&head, message.data(), std::min(message.size(), sizeof head));
    json_append_name(out, "type");
    write_padded(out, {head.msg_typ, std::min(message.size(), sizeof head.msg_typ)});
    json_append_name(out, "version");
    json_append_bytes(out, message.size() >= 10 ? std::string_view(head.version, 2) : std::string_view());
    json_append_name(out, "client");
    json_append_number(out, message.size() >= 12 ? uint64_t{head.i2Mandant} : 0);
    json_append_name(out, "user");
    json_append_number(out, message.size() >= 16 ? uint64_t{head.i4UsrIdNr} : 0);
}

// The members of one message. The walk comes first in the line, but is known only behind the fields: these
// are written to a text of their own.
void append_message(const cp_decode_options& options, std::span<unsigned char> message, std::string* out) {
    static thread_local std::string fields;
    fields = "{";
    field_writer writer = {&fields, "}", message.data() + message.size()};
    walk_visitor visitor = {write_field, &writer};
    msg_error error;
    int result = walk_message(message.data(), message.size(), options.to_lan, nullptr, &visitor, &error);
    while (!writer.closers.empty()) {
        close_bracket(&writer);
    }

    json_append_name(out, "result");
    json_append_number(out, int64_t{result});
    json_append_name(out, "number");
    json_append_number(out, int64_t{error.code});
    json_append_name(out, "insert");
    json_append_bytes(out, error.subst);
    append_warnings(out, error);
    free_warning_list(&error);
    if (message.size() > 1 && message[0] == '<') {
        *out += ",\"type\":\"\",\"version\":\"\",\"client\":0,\"user\":0,\"fields\":{}";
        json_append_name(out, "xml");
        json_append_bytes(out, text_view(message.data(), message.size()));
        return;
    }
    if (message.empty()) {
        *out += ",\"type\":\"\",\"version\":\"\",\"client\":0,\"user\":0";
    } else {
        append_head(out, message);
    }
    json_append_name(out, "fields");
    *out += fields;
}

// ---- frames ----

void append_text(std::string* out, const char* name, std::string_view text) {
    if (text.empty()) {
        return;
    }
    json_append_name(out, name);
    json_append_bytes(out, text);
}

void append_acv(std::string* out, const char* name, uint32_t acv) {
    if (acv == 0) {
        return;
    }
    json_append_name(out, name);
    json_append_number(out, uint64_t{acv});
}

void append_addresses(std::string* out, const frame_address& address) {
    append_text(out, "dst_addr", address.dst_addr);
    append_text(out, "dst_name", address.dst_name);
    append_acv(out, "dst_acv", address.dst_acv);
    append_text(out, "src_addr", address.src_addr);
    append_text(out, "src_name", address.src_name);
    append_acv(out, "src_acv", address.src_acv);
}

void append_server_data(std::string* out, std::span<const unsigned char> data) {
    SERVER_DATA server;
    memcpy(&server, data.data(), sizeof server);
    append_text(out, "server", get_text(server.cSrvName));
    append_text(out, "system", get_text(server.cSysName));
    append_text(out, "server_version", get_text(server.cSrvVers));
    append_text(out, "server_type", get_text(server.cSrvTyp));
    append_text(out, "ranking", get_text(server.cConCnt));
    append_text(out, "cp_list", text_view(data.data() + sizeof server, data.size() - sizeof server));
}

void append_card(std::string* out, std::span<const unsigned char> data) {
    executor_data card;
    memcpy(&card, data.data(), sizeof card);
    append_text(out, "name", get_text(card.name));
    json_append_name(out, "port");
    json_append_number(out, uint64_t{card.ipPort});
    append_text(out, "key_hash", text_view(card.key_hash, sizeof card.key_hash));
}

void append_item(std::string* out, unsigned char key, std::span<const unsigned char> data) {
    json_append_name(out, "item");
    *out += '{';
    json_append_name(out, "key");
    json_append_number(out, uint64_t{key});
    if (key == key_server_data) {
        append_server_data(out, data);
    } else if (key == key_executor_data && data.size() >= sizeof(executor_data)) {
        append_card(out, data);
    } else {
        append_text(out, "data", text_view(data.data(), data.size()));
    }
    *out += '}';
}

void append_native_body(const cp_decode_options& options, std::span<unsigned char> body, std::string* out) {
    frame_body parsed;
    qx7_error error;
    bool good = frame_parse_body(body.data(), body.size(), &parsed, &error) == 0;
    if (good) {
        append_addresses(out, parsed.address);
    }
    *out += '}';
    if (!good) {
        // A sealed body reads like this: without the key its items cannot be told.
        json_append_name(out, "number");
        json_append_number(out, int64_t{error.qx_msgnr});
        json_append_name(out, "insert");
        json_append_bytes(out, error.qx_msgInsert);
        append_text(out, "body", text_view(body.data(), body.size()));
    } else if (parsed.protocol_key != 0) {
        append_item(out, parsed.protocol_key, body.subspan(parsed.offset, parsed.length));
    } else if (parsed.is_message) {
        append_message(options, body.subspan(parsed.offset, parsed.length), out);
    }
}

void append_frame(const cp_decode_options& options, std::span<unsigned char> frame, std::string* out) {
    QX7_PROTOCOL_HEADER header;
    memcpy(&header, frame.data(), sizeof header);
    std::span<unsigned char> body = frame.subspan(sizeof header);
    *out += '{';
    json_append_name(out, "frame");
    *out += '{';
    json_append_name(out, "length");
    json_append_number(out, uint64_t{frame.size()});
    append_text(out, "protocol", std::string_view(header.cProtocol, sizeof header.cProtocol));
    append_text(out, "coding", get_text(header.cCoding));
    append_text(out, "session", get_text(header.cSessionId));
    if (frame_protocol_is(frame.data(), protocol_native)) {
        append_native_body(options, body, out);
    } else {
        *out += '}';
        append_text(out, "body", text_view(body.data(), body.size()));
    }
    *out += "}\n";
}

bool append_error(std::string* out, std::string_view reason) {
    *out += '{';
    json_append_name(out, "error");
    json_append_string(out, reason);
    *out += "}\n";
    return false;
}

// ---- hex ----

constexpr auto hex_values = [] {
    struct {
        signed char of[256];
    } table{};
    for (int c = 0; c < 256; ++c) {
        table.of[c] = static_cast<signed char>(c >= '0' && c <= '9'   ? c - '0'
                                               : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                               : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                                      : -1);
    }
    return table;
}();

int hex_value(char c) {
    return hex_values.of[static_cast<unsigned char>(c)];
}

// Reads the bytes of a line. The result is its length, or the column of the first character that cannot be
// read.
size_t read_hex(std::string_view line, std::vector<unsigned char>* bytes) {
    bytes->resize(line.size() / 2 + 1);
    unsigned char* to = bytes->data();
    size_t at = 0;
    while (at < line.size()) {
        if (line[at] == ' ' || line[at] == '\t' || line[at] == '\r') {
            ++at;
            continue;
        }
        if (at + 1 == line.size()) {
            break;
        }
        int high = hex_value(line[at]);
        int low = hex_value(line[at + 1]);
        if ((high | low) < 0) {
            break;
        }
        *to++ = static_cast<unsigned char>(high << 4 | low);
        at += 2;
    }
    bytes->resize(static_cast<size_t>(to - bytes->data()));
    return at;
}

// ---- streams ----

using file_handle = std::unique_ptr<FILE, int (*)(FILE*)>;

// Writes what has been collected; false when standard output takes no more.
bool flush_output(std::string* out) {
    bool written = fwrite(out->data(), 1, out->size(), stdout) == out->size();
    out->clear();
    return written;
}

struct decode_state {
    const cp_decode_options* options;
    std::string out;
    bool all_good = true;
    bool output_open = true;
};

void decode_lines(decode_state* state, std::string_view text) {
    for (size_t start = 0; start < text.size() && state->output_open;) {
        size_t end = std::min(text.find('\n', start), text.size());
        state->all_good &= cp_decode_line(*state->options, text.substr(start, end - start), &state->out);
        if (state->out.size() >= output_block) {
            state->output_open = flush_output(&state->out);
        }
        start = end + 1;
    }
}

// Decodes the whole lines at the front of `input` and keeps what follows them.
void decode_front(decode_state* state, std::string* input) {
    size_t last = input->rfind('\n');
    if (last == std::string::npos) {
        return;
    }
    decode_lines(state, std::string_view(*input).substr(0, last + 1));
    input->erase(0, last + 1);
}

bool begins_with_frame(const std::string& input) {
    return cp_is_frame({reinterpret_cast<const unsigned char*>(input.data()), input.size()});
}

// Reads to the end. A capture is kept whole, lines are decoded as they come. False on a read error.
bool decode_input(decode_state* state, FILE* in) {
    std::string input;
    std::vector<char> block(input_block);
    bool capture = false;
    for (bool first = true;; first = false) {
        size_t got = fread(block.data(), 1, block.size(), in);
        input.append(block.data(), got);
        if (first) {
            capture = begins_with_frame(input);
        }
        if (got < block.size()) {
            break;
        }
        if (!capture) {
            decode_front(state, &input);
        }
    }
    if (capture) {
        std::span<unsigned char> bytes(reinterpret_cast<unsigned char*>(input.data()), input.size());
        state->all_good &= cp_decode_frames(*state->options, bytes, &state->out);
    } else {
        decode_lines(state, input);
    }
    return ferror(in) == 0;
}

}  // namespace

void cp_decode_message(const cp_decode_options& options, std::span<unsigned char> message, std::string* out) {
    *out += '{';
    append_message(options, message, out);
    *out += "}\n";
}

bool cp_is_frame(std::span<const unsigned char> bytes) {
    return bytes.size() >= frame_header_size &&
           GetProtocolLength(bytes.data()) >= static_cast<int64_t>(frame_header_size);
}

bool cp_decode_frames(const cp_decode_options& options, std::span<unsigned char> capture, std::string* out) {
    bool good = true;
    while (!capture.empty()) {
        if (!cp_is_frame(capture)) {
            return append_error(out, std::to_string(capture.size()) + " bytes that begin no frame");
        }
        size_t length = static_cast<size_t>(GetProtocolLength(capture.data()));
        if (length > capture.size()) {
            return append_error(out, "a frame of " + std::to_string(length) + " bytes ends after " +
                                         std::to_string(capture.size()));
        }
        append_frame(options, capture.first(length), out);
        capture = capture.subspan(length);
    }
    return good;
}

bool cp_decode_line(const cp_decode_options& options, std::string_view line, std::string* out) {
    static thread_local std::vector<unsigned char> bytes;
    size_t read = read_hex(line, &bytes);
    if (read < line.size()) {
        return append_error(out, "no pair of hex digits at column " + std::to_string(read + 1));
    }
    if (cp_is_frame(bytes)) {
        return cp_decode_frames(options, bytes, out);
    }
    cp_decode_message(options, bytes, out);
    return true;
}

int cp_decode(const cp_decode_options& options, const std::string& path) {
    bool standard = path.empty() || path == "-";
    file_handle file(standard ? nullptr : fopen(path.c_str(), "rbe"), fclose);
    if (!standard && file == nullptr) {
        fprintf(stderr, "qxcp decode: %s: %s\n", path.c_str(), strerror(errno));
        return 1;
    }
    decode_state state = {&options, {}};
    if (!decode_input(&state, standard ? stdin : file.get())) {
        fprintf(stderr, "qxcp decode: %s cannot be read: %s\n", standard ? "standard input" : path.c_str(),
                strerror(errno));
        return 1;
    }
    if (!flush_output(&state.out) || !state.output_open || fflush(stdout) != 0) {
        fprintf(stderr, "qxcp decode: standard output cannot be written: %s\n", strerror(errno));
        return 1;
    }
    return state.all_good ? 0 : 1;
}
