#include "base/profile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/descriptor.h"
#include "base/error_text.h"
#include "base/file_data.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/message_numbers.h"
#include "base/notes.h"
#include "base/text.h"

namespace {

constexpr size_t ini_size_limit = 16U << 20;

bool is_comment(char c) {
    return c == '!' || c == ';';
}

std::string without_blanks(std::string_view text) {
    std::string result;
    std::copy_if(text.begin(), text.end(), std::back_inserter(result),
                 [](char c) { return c != ' ' && static_cast<unsigned char>(c) >= 32; });
    return result;
}

bool same_name(std::string_view a, std::string_view b) {
    return equal_ignore_case(without_blanks(a), without_blanks(b));
}

// ---- Reading

// Leaves the stream behind the line of the section; false at the end of the file.
bool find_section(FILE* stream, std::string_view section) {
    char line[ini_record_size];
    while (GetProfZeile(stream, line, sizeof line) != read_end_of_file) {
        const std::string_view text(line);
        const size_t end = text.rfind(']');
        if (text.size() >= 3 && text[0] == '[' && end != std::string_view::npos &&
            equal_ignore_case(text.substr(1, end - 1), section)) {
            return true;
        }
    }
    return false;
}

void read_key_list(FILE* stream, std::string* list) {
    char line[ini_record_size];
    while (GetProfZeile(stream, line, sizeof line) != read_end_of_file && line[0] != '[') {
        const std::string_view text(line);
        const size_t equals = text.find('=');
        if (equals == std::string_view::npos) {
            continue;
        }
        if (list->size() + equals + 2 > ini_list_limit) {
            break;
        }
        list->append(text.substr(0, equals));
        list->push_back('\0');
    }
    list->push_back('\0');
}

// The first line with the key decides, also when its value is empty.
bool read_key(FILE* stream, std::string_view key, std::string* value) {
    char line[ini_record_size];
    while (GetProfZeile(stream, line, sizeof line) != read_end_of_file && line[0] != '[') {
        const std::string_view text(line);
        const size_t equals = text.find('=');
        if (equals != std::string_view::npos && equal_ignore_case(text.substr(0, equals), key)) {
            *value = text.substr(equals + 1);
            return true;
        }
    }
    return false;
}

// False when the preset holds. An empty key gives the list of keys.
bool read_profile(const char* file, std::string_view section, std::string_view key, std::string* value) {
    value->clear();
    if (file == nullptr || section.empty()) {
        return false;
    }
    qx_stream stream(FileFOpenNoTrace(file, "r"));
    if (!stream.valid() || !find_section(stream.get(), section)) {
        return false;
    }
    if (key.empty()) {
        read_key_list(stream.get(), value);
        return true;
    }
    return read_key(stream.get(), key, value) && !value->empty();
}

// At most the line end is left: the line is whole.
bool line_goes_on(FILE* stream) {
    const int c = getc(stream);
    if (c != EOF && c != '\n') {
        ungetc(c, stream);
    }
    return c != EOF && c != '\n';
}

// Moves the line from its first character on to the front; the length that is left.
int without_blanks_in_key(char* buffer, const char* from) {
    char* to = buffer;
    while (*from != '\0' && *from != '=') {
        if (*from != ' ') {
            *to++ = *from;
        }
        ++from;
    }
    if (*from == '=') {
        *to++ = *from++;
        from += strspn(from, " ");
    }
    const size_t rest = strlen(from);
    memmove(to, from, rest + 1);
    return static_cast<int>(to - buffer + static_cast<ptrdiff_t>(rest));
}

std::string_view view_of(const char* text) {
    return text == nullptr ? std::string_view() : text;
}

// ---- Writing

bool has_control_bytes(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 32; });
}

// What would come back as another line, key or section is refused: values come from partners too.
bool may_be_written(std::string_view section, std::string_view key, std::string_view value) {
    const bool good = !section.empty() && !key.empty() && !has_control_bytes(section) &&
                      !has_control_bytes(key) && !has_control_bytes(value) &&
                      section.find(']') == std::string_view::npos &&
                      key.find('=') == std::string_view::npos && !is_comment(key[0]) && key[0] != '[';
    if (!good) {
        errno = EINVAL;
    }
    return good;
}

// The whole file and its status; false with errno.
bool load_file(const char* path, std::string* content, struct stat* status) {
    qx_descriptor file(FileOpenRead(path));
    return file.valid() && fstat(file.get(), status) == 0 &&
           read_whole_file(file.get(), ini_size_limit, content);
}

void sync_folder_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    qx_descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) {
        fsync(directory.get());  // the content is safe already; a lost rename leaves the old file
    }
}

// Puts the content in place of the file behind `path` (links resolved) only after all of it is on the disk.
bool replace_file(const char* path, std::string_view content, mode_t mode, uid_t uid, gid_t gid) {
    char* resolved = realpath(path, nullptr);
    const std::string target = resolved == nullptr ? path : resolved;
    free(resolved);
    const std::string temporary = target + ".tmp";
    const int fd = create_new_file(temporary.c_str(), mode & 07777, uid, gid, nullptr);
    if (fd < 0) {
        return false;
    }
    qx_descriptor owner(fd);
    bool good = WriteFdWrite(fd, content.data(), content.size()) == 0 && fsync(fd) == 0;
    good = good && FileClose(owner.release()) == 0 && rename(temporary.c_str(), target.c_str()) == 0;
    if (!good) {
        const int kept = errno;
        unlink(temporary.c_str());
        errno = kept;
        return false;
    }
    sync_folder_of(target);
    return true;
}

int written(bool good, const char* function, const char* file) {
    if (!good) {
        const int number = errno;
        note_message(number_file_call, "%s", call_insert(function, file, number).c_str());
        errno = number;
    }
    return good ? 1 : 0;
}

// A line as reading sees it at its beginning: no bytes below 32, no leading blanks.
std::string as_read(std::string_view line) {
    std::string text;
    std::copy_if(line.begin(), line.end(), std::back_inserter(text),
                 [](char c) { return static_cast<unsigned char>(c) >= 32; });
    return text.erase(0, std::min(text.find_first_not_of(' '), text.size()));
}

// Whether the line is the section's own: its name ends at the last closing character, as in reading.
bool opens_section(std::string_view line, char closing, std::string_view section) {
    const size_t end = line.rfind(closing);
    return end != std::string_view::npos && end > 0 && same_name(line.substr(1, end - 1), section);
}

bool key_line_matches(std::string_view line, std::string_view key, size_t* equals) {
    *equals = line.find('=');
    return *equals != std::string_view::npos && same_name(line.substr(0, *equals), key);
}

// The copy of a file with one value changed: lines that stay are taken byte for byte.
struct value_writer {
    std::string_view section;
    std::string_view key;
    std::string_view value;
    std::string out;
    bool in_section = false;
    bool done = false;
};

std::string padded_key_line(const value_writer& writer) {
    std::string line(writer.key);
    line.resize(std::max<size_t>(line.size(), 21), ' ');
    return line.append("=  ").append(writer.value).append("\n");
}

// `line` holds its line end, if it has one.
void copy_line(value_writer* writer, std::string_view line) {
    std::string_view text = line;
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    if (!text.empty() && text.back() == '\r') {
        text.remove_suffix(1);
    }
    const std::string_view end = line.substr(text.size());
    const std::string looked_at = as_read(text);
    if (!writer->done && !looked_at.empty() && !is_comment(looked_at[0])) {
        const char closing = IfSection(looked_at.c_str());
        size_t equals = 0;
        if (closing != 0 && writer->in_section) {
            writer->out.append(writer->key).append("=").append(writer->value).append("\n");
            writer->done = true;
        } else if (closing != 0) {
            writer->in_section = opens_section(looked_at, closing, writer->section);
        } else if (writer->in_section && key_line_matches(text, writer->key, &equals)) {
            writer->out.append(text.substr(0, equals)).append("=  ").append(writer->value).append(end);
            writer->done = true;
            return;
        }
    }
    writer->out.append(line);
}

void finish_copy(value_writer* writer) {
    if (writer->done) {
        return;
    }
    if (!writer->out.empty() && writer->out.back() != '\n') {
        writer->out += '\n';
    }
    if (!writer->in_section) {
        writer->out.append("\n\n[").append(writer->section).append("]\n\n");
    }
    writer->out += padded_key_line(*writer);
}

using ini_records = std::vector<INI_FILE_RECORD>;

ini_records split_records(std::string_view content) {
    ini_records records;
    while (!content.empty()) {
        const size_t end = content.find('\n');
        std::string_view line = content.substr(0, end);
        content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
        records.push_back({std::string(line)});
        std::erase(records.back().cRec, '\r');
    }
    return records;
}

bool is_section_record(const INI_FILE_RECORD& record) {
    return as_read(record.cRec).starts_with('[');
}

// Changes the records; false when nothing had to be changed.
bool change_records(ini_records* records, std::string_view section, std::string_view key, const char* value) {
    auto at = std::find_if(records->begin(), records->end(), [&](const INI_FILE_RECORD& record) {
        return is_section_record(record) && opens_section(as_read(record.cRec), ']', section);
    });
    if (at == records->end()) {
        if (value == nullptr) {
            return false;
        }
        if (!records->empty() && !records->back().cRec.empty()) {
            records->push_back({""});
        }
        records->push_back({""});
        records->push_back({"[" + std::string(section) + "]"});
        records->push_back({std::string(key) + "=" + value});
        return true;
    }
    for (++at; at != records->end() && !is_section_record(*at); ++at) {
        const std::string& line = at->cRec;
        const std::string looked_at = as_read(line);
        size_t equals = 0;
        if (looked_at.empty() || is_comment(looked_at[0]) || looked_at[0] == '(' ||
            !key_line_matches(line, key, &equals)) {
            continue;
        }
        if (value == nullptr) {
            records->erase(at);
            return true;
        }
        const bool same = line.substr(equals + 1) == value;
        at->cRec = line.substr(0, equals + 1) + value;
        return !same;
    }
    if (value == nullptr) {
        return false;
    }
    records->insert(at, {std::string(key) + "=" + value});
    return true;
}

}  // namespace

char IfSection(const char* line) {
    if (line == nullptr) {
        return 0;
    }
    return line[0] == '[' ? ']' : line[0] == '(' ? ')' : '\0';
}

int ReadProfZeile(FILE* stream, char* buffer, int size) {
    int length = 0;
    bool any = false;
    while (length < size - 1) {
        const int c = getc(stream);
        if (c == EOF) {
            break;
        }
        any = true;
        if (c == '\n') {
            break;
        }
        if (c >= 32) {
            buffer[length++] = static_cast<char>(c);
        }
    }
    buffer[length] = '\0';
    return any ? length : read_end_of_file;
}

int profile_read_line(FILE* stream, char* buffer, int size, int* line, bool* cut) {
    for (;;) {
        const bool begins = !*cut;
        const int read = ReadProfZeile(stream, buffer, size);
        if (read == read_end_of_file) {
            return read_end_of_file;
        }
        *line += begins ? 1 : 0;
        *cut = read == size - 1 && line_goes_on(stream);
        const char* from = buffer + strspn(buffer, " ");
        if (*from != '\0' && !is_comment(*from)) {
            return without_blanks_in_key(buffer, from);
        }
    }
}

int GetProfZeile(FILE* stream, char* buffer, int size) {
    int line = 0;
    bool cut = false;
    return profile_read_line(stream, buffer, size, &line, &cut);
}

void (*profile_read_watch)(const char* section, const char* key, const char* preset) = nullptr;

const char* GetProfileString(const char* file, const char* section, const char* key, const char* preset) {
    static thread_local std::string shared;
    std::string value;
    if (!read_profile(file, view_of(section), view_of(key), &value)) {
        value = view_of(preset);  // before the buffer changes: it may lie in it
    }
    shared = std::move(value);
    return shared.c_str();
}

int GetPrvProfileString(const char* section, const char* key, const char* preset, char* buffer, size_t size,
                        const char* file) {
    if (buffer == nullptr || size == 0) {
        return 0;
    }
    if (profile_read_watch != nullptr) {
        profile_read_watch(section, key, preset);
    }
    std::string value;
    if (!read_profile(file, view_of(section), view_of(key), &value)) {
        return static_cast<int>(copy_text(buffer, size, view_of(preset)));
    }
    if (!view_of(key).empty() || size < 2) {
        return static_cast<int>(copy_text(buffer, size, value));
    }
    // A list that is cut still ends with two NULs, behind a whole name.
    size_t length = std::min(value.size(), size);
    if (length < value.size()) {
        const size_t last = value.rfind('\0', size - 2);
        value.resize(last == std::string::npos ? 0 : last + 1);
        value.resize(std::max<size_t>(value.size() + 1, 2));
        length = value.size();
    }
    memcpy(buffer, value.data(), length);
    return static_cast<int>(length);
}

int WritePrivateProfileString(const char* section, const char* key, const char* value, const char* file) {
    if (view_of(section).empty() || view_of(file).empty()) {
        return 0;
    }
    return WritePPString(section, key, value, file);
}

int WritePPString(const char* section, const char* key, const char* value, const char* file) {
    value_writer writer{view_of(section), view_of(key), view_of(value), {}, false, false};
    if (!may_be_written(writer.section, writer.key, writer.value)) {
        return 0;
    }
    effUser_guard guard;
    std::string content;
    struct stat status;
    if (!load_file(file, &content, &status)) {
        return 0;
    }
    std::string present;
    if (read_profile(file, writer.section, writer.key, &present) && present == writer.value) {
        return 1;
    }
    for (std::string_view rest = content; !rest.empty();) {
        const size_t end = std::min(rest.find('\n'), rest.size() - 1) + 1;
        copy_line(&writer, rest.substr(0, end));
        rest.remove_prefix(end);
    }
    finish_copy(&writer);
    return written(replace_file(file, writer.out, status.st_mode, status.st_uid, status.st_gid),
                   "WritePPString()", file);
}

int __PutProfileString(const char* section, const char* key, const char* value, const char* file,
                       mode_t new_mode) {
    if (view_of(file).empty() || !may_be_written(view_of(section), view_of(key), view_of(value))) {
        return 0;
    }
    effUser_guard guard;
    std::string content;
    struct stat status = {};
    status.st_mode = new_mode;
    status.st_uid = static_cast<uid_t>(-1);
    status.st_gid = static_cast<gid_t>(-1);
    if (!load_file(file, &content, &status) && errno != ENOENT) {
        return written(false, "__PutProfileString()", file);
    }
    ini_records records = split_records(content);
    if (!change_records(&records, section, key, value)) {
        return 1;
    }
    std::string out;
    for (const INI_FILE_RECORD& record : records) {
        out.append(record.cRec).append("\n");
    }
    return written(replace_file(file, out, status.st_mode, status.st_uid, status.st_gid),
                   "__PutProfileString()", file);
}

int m_getProfileString(EX_PCX* pcx, const char* section, const char* key, const char* preset, char* out,
                       size_t size) {
    return GetPrvProfileString(section, key, preset, out, size, pcx->IniFile);
}

bool m_getProfileBool(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char value[ini_record_size];
    m_getProfileString(pcx, section, key, preset, value, sizeof value);
    const std::string text = upper(value);
    return text == "1" || text == "Y" || text == "YE" || text == "YES";
}

int m_getProfileInt(EX_PCX* pcx, const char* section, const char* key, const char* preset) {
    char value[ini_record_size];
    m_getProfileString(pcx, section, key, preset, value, sizeof value);
    // As atoi, without its undefined result for what does not fit.
    const long number = strtol(value, nullptr, 10);
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

int m_putProfileString(EX_PCX* pcx, const char* section, const char* key, const char* value) {
    return WritePrivateProfileString(section, key, value, pcx->IniFile);
}
