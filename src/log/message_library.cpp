// The message library: an index over a text file, a cache of the records read, and the inserts.
#include "log/message_library.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/file_data.h"
#include "base/files.h"
#include "base/text.h"

PZUHELP GlbHlpHnd = nullptr;

namespace {

constexpr size_t longest_record = 2047;
constexpr size_t longest_inserts = 2047;
constexpr size_t key_digits = 8;
constexpr size_t library_limit = 64U << 20;

bool is_library(const _pzuhelp* handle) {
    return handle != nullptr && memcmp(handle->id, "%HLP", 4) == 0;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

size_t leading_digits(std::string_view text) {
    return static_cast<size_t>(std::find_if_not(text.begin(), text.end(), is_digit) - text.begin());
}

int compare_keys(const PZUHELP_KEYBUF_ENTRY& a, const PZUHELP_KEYBUF_ENTRY& b) {
    return memcmp(a.key, b.key, sizeof a.key);
}

void add_entry(_pzuhelp* handle, std::string_view line, off_t position, size_t digits) {
    // Lines that are no records are passed over: a number of the wrong length would be found under another
    // one.
    if (line.size() < digits + 2 || leading_digits(line.substr(0, digits)) != digits) {
        return;
    }
    PZUHELP_KEYBUF_ENTRY entry;
    memset(entry.key, '0', sizeof entry.key);
    memcpy(entry.key + key_digits - digits, line.data(), digits + 1);
    entry.pos = position;
    handle->entries.push_back(entry);
}

void sort_entries(_pzuhelp* handle) {
    std::vector<PZUHELP_KEYBUF_ENTRY>& entries = handle->entries;
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return compare_keys(a, b) < 0; });
    entries.erase(std::unique(entries.begin(), entries.end(),
                              [](const auto& a, const auto& b) { return compare_keys(a, b) == 0; }),
                  entries.end());
}

// False with EINVAL when the first line does not begin with 1 to 8 digits.
bool build_index(_pzuhelp* handle, std::string_view content) {
    const size_t digits = leading_digits(content.substr(0, content.find('\n')));
    if (!content.empty() && (digits == 0 || digits > key_digits)) {
        errno = EINVAL;
        return false;
    }
    for (size_t start = 0; start < content.size();) {
        const size_t end = std::min(content.find('\n', start), content.size());
        add_entry(handle, content.substr(start, end - start), static_cast<off_t>(start), digits);
        start = end + 1;
    }
    sort_entries(handle);
    handle->keylen = static_cast<int>(digits) + 1;
    return true;
}

std::string read_record(const _pzuhelp* handle, off_t position) {
    char line[longest_record];
    const ssize_t length = pread(handle->fd, line, sizeof line, position);
    if (length <= 0) {
        return {};  // the number is then shown with its bare inserts
    }
    const std::string_view text(line, static_cast<size_t>(length));
    return std::string(text.substr(0, text.find('\n')));
}

// The record of a number in the handle's language, empty when there is none.
const std::string& find_record(_pzuhelp* handle, int number) {
    static const std::string none;
    char text[24];
    snprintf(text, sizeof text, "%.8d%c", number, handle->mainLang);
    if (strlen(text) != key_digits + 1) {
        return none;
    }
    std::array<char, 9> key;
    memcpy(key.data(), text, key.size());
    const auto cached = handle->cache.find(key);
    if (cached != handle->cache.end()) {
        return cached->second;
    }
    PZUHELP_KEYBUF_ENTRY wanted;
    memcpy(wanted.key, key.data(), key.size());
    const auto found = std::lower_bound(handle->entries.begin(), handle->entries.end(), wanted,
                                        [](const auto& a, const auto& b) { return compare_keys(a, b) < 0; });
    if (found == handle->entries.end() || compare_keys(*found, wanted) != 0) {
        return none;
    }
    return handle->cache.emplace(key, read_record(handle, found->pos)).first->second;
}

std::string_view take_inserts(int length, const char* text) {
    if (length == 0 || text == nullptr) {
        return {};
    }
    if (length < 0) {
        return {text, strnlen(text, longest_inserts)};
    }
    std::string_view inserts(text, std::min(static_cast<size_t>(length), longest_inserts));
    while (!inserts.empty() && inserts.back() == ' ') {
        inserts.remove_suffix(1);
    }
    return inserts;
}

void append_insert(std::string* out, const std::vector<std::string_view>& inserts, size_t number,
                   bool with_later) {
    if (number == 0 || number > inserts.size()) {
        return;
    }
    out->append(inserts[number - 1]);
    for (size_t later = number; with_later && later < inserts.size(); ++later) {
        out->append("|").append(inserts[later]);
    }
}

}  // namespace

std::string zuhelp_fill(std::string_view text, std::string_view inserts) {
    const std::vector<std::string_view> parts = split_words(inserts, '|');
    std::string out;
    while (!text.empty()) {
        // All "&" come before any "$", also where a "$" stands further left.
        size_t marker = text.find('&');
        if (marker == std::string_view::npos) {
            marker = text.find('$');
        }
        out.append(text.substr(0, marker));
        if (marker == std::string_view::npos) {
            break;
        }
        const bool with_later = text[marker] == '$';
        text.remove_prefix(marker + 1);
        if (text.size() >= 2 && is_digit(text[0]) && is_digit(text[1])) {
            append_insert(&out, parts, static_cast<size_t>((text[0] - '0') * 10 + (text[1] - '0')),
                          with_later);
            text.remove_prefix(2);
        } else {
            out += '&';  // for a lone "$" too: texts in use rely on it
        }
    }
    return out;
}

PZUHELP ZUHELP_Open(const char* filename, int /*cache*/) {
    const char* name = filename == nullptr || filename[0] == '\0' ? default_message_library : filename;
    std::string content;
    const int fd = FileOpenRead(name);
    if (fd < 0) {
        return nullptr;
    }
    PZUHELP handle = new (std::nothrow) _pzuhelp;
    if (handle != nullptr) {
        handle->fd = fd;
        copy_text(handle->filename, name);
    }
    if (handle == nullptr || !read_whole_file(fd, library_limit, &content) || !build_index(handle, content)) {
        const int kept = handle == nullptr ? ENOMEM : errno;
        close(fd);
        delete handle;
        errno = kept;
        return nullptr;
    }
    GlbHlpHnd = handle;
    return handle;
}

int ZUHELP_Close(PZUHELP handle) {
    if (!is_library(handle)) {
        return 1;
    }
    if (GlbHlpHnd == handle) {
        GlbHlpHnd = nullptr;
    }
    close(handle->fd);  // opened for reading only: nothing can be lost
    memset(handle->id, 0, sizeof handle->id);
    delete handle;
    return 0;
}

int ZUHELP_SetLang(PZUHELP handle, char main_language, char sub_language) {
    if (!is_library(handle)) {
        return 1;
    }
    handle->mainLang = ToUpperCase(main_language);
    handle->subLang = ToUpperCase(sub_language);
    return 0;
}

int ZUHELP_GetLang(PZUHELP handle, char* main_language, char* sub_language) {
    if (!is_library(handle)) {
        return 1;
    }
    *main_language = handle->mainLang;
    *sub_language = handle->subLang;
    return 0;
}

int ZUHELP_GetFd(PZUHELP handle) {
    return is_library(handle) ? handle->fd : -1;
}

int ZUHELP_Msg(PZUHELP handle, int number, int insLen, const char* insTxt, size_t bufLen, char* bufAddr,
               ZUHELP_MSGINFO* msgInfo) {
    if (!is_library(handle)) {
        return 1;
    }
    const std::string_view inserts = take_inserts(insLen, insTxt);
    char head[24];
    snprintf(head, sizeof head, "U%.8d ", number);
    std::string out = head;
    ZUHELP_MSGINFO info = {' ', ' ', 0};
    const std::string& record = find_record(handle, number);
    const size_t type_at = static_cast<size_t>(handle->keylen);
    if (record.size() <= type_at) {
        out.append(inserts);
    } else {
        info.typ = record[type_at];
        out += zuhelp_fill(std::string_view(record).substr(type_at + 1), inserts);
    }
    copy_text(bufAddr, bufLen, out);
    if (msgInfo != nullptr) {
        *msgInfo = info;
    }
    return 0;
}
