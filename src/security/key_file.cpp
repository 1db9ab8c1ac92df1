#include "security/key_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/files.h"
#include "base/locks.h"
#include "base/text.h"

namespace {

constexpr mode_t key_file_mode = 0400;

bool is_section(std::string_view line, std::string_view* name) {
    line = strip(line);
    if (line.size() < 3 || line.front() != '[' || line.back() != ']') {
        return false;
    }
    *name = strip(line.substr(1, line.size() - 2));
    return true;
}

bool is_key(std::string_view line, std::string_view key, std::string_view* value) {
    size_t equals = line.find('=');
    if (equals == std::string_view::npos || !equal_ignore_case(strip(line.substr(0, equals)), key)) {
        return false;
    }
    *value = strip(line.substr(equals + 1));
    return true;
}

// The next line with its end, taken off the front of `rest`.
std::string_view take_line(std::string_view* rest) {
    size_t end = rest->find('\n');
    std::string_view line = rest->substr(0, end == std::string_view::npos ? rest->size() : end + 1);
    rest->remove_prefix(line.size());
    return line;
}

// Where in a file a value stands, or where it would have to be put.
struct place {
    size_t at = 0;      // offset of the line that holds it, or of the end of its section
    size_t length = 0;  // of that line; 0: there is none
    bool section_found = false;
    std::string_view value;
};

place find_place(std::string_view content, std::string_view section, std::string_view key) {
    place found;
    found.at = content.size();
    std::string_view rest = content, name;
    bool inside = false;
    while (!rest.empty()) {
        size_t at = content.size() - rest.size();
        std::string_view line = take_line(&rest);
        if (is_section(line, &name)) {
            if (inside) {
                return found;
            }
            inside = equal_ignore_case(name, section);
            found.section_found = inside;
            found.at = inside ? at + line.size() : content.size();
        } else if (inside && is_key(line, key, &found.value)) {
            found.at = at;
            found.length = line.size();
            return found;
        } else if (inside && !strip(line).empty()) {
            found.at = at + line.size();
        }
    }
    return found;
}

bool is_plain(std::string_view text) {
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 32) {
            return false;
        }
    }
    return text == strip(text);
}

bool may_stand(std::string_view section, std::string_view key, std::string_view value) {
    return is_plain(section) && is_plain(key) && is_plain(value) && !section.empty() && !key.empty() &&
           section.find_first_of("[]") == std::string_view::npos &&
           key.find_first_of("=[") == std::string_view::npos;
}

// Collects text in memory of known size, so that nothing is left behind by a buffer that grew.
struct collector {
    qx_secret_text text;
    size_t used = 0;
    void add(std::string_view part) {
        memcpy(text.data() + used, part.data(), part.size());
        used += part.size();
    }
};

bool changed_content(std::string_view content, const place& found, std::string_view section,
                     std::string_view key, std::string_view value, collector* out) {
    if (!out->text.resize(content.size() + section.size() + key.size() + value.size() + 8)) {
        errno = ENOMEM;
        return false;
    }
    std::string_view front = content.substr(0, found.at);
    out->add(front);
    if (!value.empty()) {
        if (!front.empty() && front.back() != '\n') {
            out->add("\n");
        }
        if (!found.section_found) {
            out->add("[");
            out->add(section);
            out->add("]\n");
        }
        out->add(key);
        out->add("=");
        out->add(value);
        out->add("\n");
    }
    out->add(content.substr(found.at + found.length));
    return true;
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done < 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(done));
    }
    return true;
}

void sync_folder_of(const std::string& path) {
    size_t slash = path.rfind('/');
    std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    qx_descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.valid()) {
        fsync(directory.get());  // the content is safe already; a rename that gets lost leaves the older file
    }
}

// The file behind a link, so that the link stays.
std::string resolved(const std::string& file) {
    char* path = realpath(file.c_str(), nullptr);
    std::string result = path == nullptr ? file : path;
    free(path);
    return result;
}

int replace_file(const std::string& file, std::string_view content, uid_t uid, gid_t gid) {
    std::string target = resolved(file), temporary = target + ".tmp";
    qx_descriptor out(create_new_file(temporary.c_str(), key_file_mode, uid, gid, nullptr));
    if (!out.valid()) {
        return -1;
    }
    bool good = write_all(out.get(), content) && fsync(out.get()) == 0;
    good = close(out.release()) == 0 && good;
    if (!good || rename(temporary.c_str(), target.c_str()) != 0) {
        int number = errno;
        unlink(temporary.c_str());
        errno = number;
        return -1;
    }
    sync_folder_of(target);
    return 0;
}

}  // namespace

int ReadCfg(const std::string& file, qx_secret_text* content) {
    content->clear();
    qx_descriptor in(FileOpenRead(file.c_str()));
    struct stat status;
    if (!in.valid() || fstat(in.get(), &status) != 0) {
        return -1;
    }
    if (status.st_size > static_cast<off_t>(key_file_limit)) {
        errno = EFBIG;
        return -1;
    }
    auto size = static_cast<size_t>(status.st_size);
    if (!content->resize(size)) {
        errno = ENOMEM;
        return -1;
    }
    size_t done = 0;
    while (done < size) {
        ssize_t got = read(in.get(), content->data() + done, size - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;  // it became shorter meanwhile; what is missing reads as NUL and matches nothing
        }
        done += static_cast<size_t>(got);
    }
    return 0;
}

std::string_view SearchCfg(const qx_secret_text& content, std::string_view section, std::string_view key) {
    return find_place(content.view(), section, key).value;
}

int UpdateCfg(const std::string& file, std::string_view section, std::string_view key,
              std::string_view value) {
    if (!may_stand(section, key, value)) {
        errno = EINVAL;
        return -1;
    }
    effUser_guard guard;
    qx_secret_text content;
    struct stat status;
    auto uid = static_cast<uid_t>(-1);
    auto gid = static_cast<gid_t>(-1);
    if (ReadCfg(file, &content) != 0 && errno != ENOENT) {
        return -1;
    }
    if (stat(file.c_str(), &status) == 0) {
        uid = status.st_uid;
        gid = status.st_gid;
    }
    place found = find_place(content.view(), section, key);
    if (found.length == 0 ? value.empty() : found.value == value) {
        return 0;  // nothing would change
    }
    collector changed;
    if (!changed_content(content.view(), found, section, key, value, &changed)) {
        return -1;
    }
    return replace_file(file, changed.text.view().substr(0, changed.used), uid, gid);
}
