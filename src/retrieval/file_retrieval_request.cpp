#include "retrieval/file_retrieval_request.h"

#include <algorithm>
#include <cstring>

#include "base/base64.h"
#include "base/message_numbers.h"
#include "base/text.h"

namespace {

constexpr std::string_view cdata_begin = "<![CDATA[";
constexpr char hidden = '\0';
constexpr size_t short_value_max = 64;
constexpr size_t long_value_max = 255;

int form_error(qx7_error* error, const std::string& what) {
    return qx_error_set(error, -1, 0, number_file_read_form, "XML-format error '%s'", what.c_str());
}

// A copy of the text in which whatever may look like an attribute and is none is hidden: the contents of
// CDATA sections and comments, and what stands in quotes inside a tag. Places in it are places in the text.
std::string visible_part(std::string_view text) {
    std::string out(text);
    const auto hide = [&](size_t from, size_t to) {
        std::fill(out.begin() + static_cast<std::ptrdiff_t>(from),
                  out.begin() + static_cast<std::ptrdiff_t>(to), hidden);
    };
    bool in_tag = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const std::string_view rest = text.substr(at);
        if (!in_tag && rest.starts_with(cdata_begin)) {
            const size_t end = std::min(text.find(']', at), text.size());
            hide(at + cdata_begin.size(), end);
            at = end;
        } else if (!in_tag && rest.starts_with("<!--")) {
            const size_t end = std::min(text.find("-->", at + 4), text.size());
            hide(at, end);
            at = end;
        } else if (text[at] == '<') {
            in_tag = true;
        } else if (text[at] == '>') {
            in_tag = false;
        } else if (in_tag && text[at] == '"') {
            const size_t end = std::min(text.find('"', at + 1), text.size());
            hide(at + 1, end);
            at = end;
        }
    }
    return out;
}

struct request_text {
    std::string_view text;
    std::string visible;
};

bool stands_alone(const std::string& visible, size_t at) {
    return at == 0 || visible[at] == '<' || strchr(" \t\r\n<", visible[at - 1]) != nullptr;
}

size_t find_name(const request_text& request, std::string_view name) {
    size_t at = request.visible.find(name);
    while (at != std::string::npos && !stands_alone(request.visible, at)) {
        at = request.visible.find(name, at + 1);
    }
    return at;
}

bool harmless(std::string_view value) {
    return std::all_of(value.begin(), value.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= ' ' && c != 127 && c != '<'; });
}

// The quoted value behind `name`, which includes the "=".
int read_value(const request_text& request, const char* name, size_t max, std::string* value,
               qx7_error* error) {
    const size_t at = find_name(request, name);
    if (at == std::string::npos) {
        return form_error(error, name);
    }
    const size_t quote = at + strlen(name);
    const bool quoted = quote < request.text.size() && request.text[quote] == '"';
    const size_t end = quoted ? request.text.find('"', quote + 1) : std::string_view::npos;
    if (end == std::string_view::npos) {
        return form_error(error, std::string(name) + "\"");
    }
    const std::string_view found = request.text.substr(quote + 1, end - quote - 1);
    if (found.size() > max || !harmless(found)) {
        return form_error(error, std::string(name) + "\"");
    }
    *value = found;
    return 0;
}

int check_length(std::string_view text, qx7_error* error) {
    return text.size() <= file_request_text_max ? 0 : form_error(error, "length");
}

int read_key(const request_text& request, size_t size, std::string* key, qx7_error* error) {
    if (read_value(request, "request=", size - 1, key, error) != 0) {
        return -1;
    }
    return key->empty() ? form_error(error, "request=\"") : 0;
}

int read_cdata(const request_text& request, RCV_CD* out, qx7_error* error) {
    const size_t begin = request.visible.find(cdata_begin);
    if (begin == std::string::npos) {
        return form_error(error, std::string(cdata_begin));
    }
    const size_t from = begin + cdata_begin.size();
    const size_t end = request.text.find(']', from);
    if (end == std::string_view::npos) {
        return form_error(error, "]");
    }
    std::string bytes;
    if (!base64_decode(request.text.substr(from, end - from), &bytes) || bytes.size() < sizeof *out) {
        bytes.clear();
    }
    bytes.resize(sizeof *out);
    memcpy(out, bytes.data(), sizeof *out);
    return 0;
}

int check_cdata(RCV_CD* record, qx7_error* error) {
    const std::string_view type(record->cd_requesttype, sizeof record->cd_requesttype);
    if (type != "GETFILE " && type != "GET_FILE") {
        return qx_error_set(error, -1, 0, number_file_read_form, "XML-format error 'requesttype'-error");
    }
    if (record->cd_loginobject[0] == ' ' || record->cd_loginobject[0] == '\0') {
        return qx_error_set(error, -1, 0, number_file_read_no_login, "|");
    }
    record->cd_blocksize =
        std::clamp(iCnvI32(record->cd_blocksize), file_request_block_min, file_request_block_max);
    record->cd_records = iCnvI32(record->cd_records);
    record->cd_pos = iCnvI64(record->cd_pos);
    record->cd_client = iCnvI16(record->cd_client);
    return 0;
}

// An insert as an attribute's value of at most `max` characters; no entity is cut.
std::string attribute_text(std::string_view text, size_t max) {
    std::string out;
    for (const char c : text) {
        std::string_view shown(&c, 1);
        switch (c) {
            case '&':
                shown = "&amp;";
                break;
            case '<':
                shown = "&lt;";
                break;
            case '>':
                shown = "&gt;";
                break;
            case '"':
                shown = "&quot;";
                break;
            default:
                if (static_cast<unsigned char>(c) < ' ') {
                    shown = " ";
                }
        }
        if (out.size() + shown.size() > max) {
            break;
        }
        out += shown;
    }
    return out;
}

}  // namespace

int read_requestKey(std::string_view text, char* key, size_t size, qx7_error* error) {
    key[0] = '\0';
    if (check_length(text, error) != 0) {
        return -1;
    }
    std::string value;
    if (read_key({text, visible_part(text)}, size, &value, error) != 0) {
        return -1;
    }
    copy_text(key, size, value);
    return 0;
}

int file_request_parse(std::string_view text, file_request* out, qx7_error* error) {
    if (check_length(text, error) != 0) {
        return -1;
    }
    const request_text request{text, visible_part(text)};
    std::string number;
    int64_t user = 0;
    // The order decides which failure is told.
    if (read_cdata(request, &out->cdata, error) != 0 ||
        read_value(request, "addr=", short_value_max, &out->addr, error) != 0 ||
        read_value(request, "name=", short_value_max, &out->name, error) != 0 ||
        read_key(request, file_request_key_size, &out->request, error) != 0 ||
        read_value(request, "session=", short_value_max, &out->session, error) != 0 ||
        read_value(request, "useridnr=", short_value_max, &number, error) != 0 ||
        read_value(request, "<request name=", long_value_max, &out->reqName, error) != 0 ||
        read_value(request, "src=", long_value_max, &out->reqSrc, error) != 0) {
        return -1;
    }
    if (!parse_number(strip(number), INT32_MIN, UINT32_MAX, &user)) {
        return form_error(error, "useridnr=\"");
    }
    out->uidnr = static_cast<uint32_t>(user);
    return check_cdata(&out->cdata, error);
}

std::string file_answer_data(std::string_view key, std::string_view record) {
    std::string text;
    text.reserve(base64_size(record.size()) + key.size() + 128);
    text += "<qx-env request=\"";
    text += key;
    text += "\"> <response><![CDATA[";
    base64_encode(record, &text);
    text += "]]></response></qx-env>";
    return text;
}

std::string file_answer_error(std::string_view key, int number, std::string_view insert) {
    if (key != file_request_no_key) {
        key = key.substr(0, key.find(' '));
    }
    std::string text = "<qx-env request=\"";
    text += key;
    text += "\"> <error msgnr=\"" + std::to_string(number) + "\" insert=\"";
    constexpr std::string_view end = "\"/> <response/> </qx-env>";
    text += attribute_text(insert, file_answer_error_max - text.size() - end.size());
    text += end;
    return text;
}
