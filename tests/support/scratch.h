// A directory of its own for a test, removed at the end, and small file helpers.
#pragma once

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

struct scratch {
    std::string path;

    explicit scratch(const std::string& place = "/tmp") : path(place + "/qx_test_XXXXXX") {
        if (mkdtemp(path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + path + ": " + strerror(errno));
        }
    }
    scratch(const scratch&) = delete;
    scratch& operator=(const scratch&) = delete;
    ~scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string at(const std::string& name) const { return path + "/" + name; }
    std::string operator/(const std::string& name) const { return at(name); }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(at(name), std::ios::binary) << content;
        return at(name);
    }
    std::string read(const std::string& name) const {
        std::ifstream file(at(name), std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }
    bool exists(const std::string& name) const {
        struct stat status;
        return lstat(at(name).c_str(), &status) == 0;
    }
};

// True when the text has the form: '9' stands for a digit, 'X' for a hexadecimal one, '*' at the end for any
// rest.
inline bool has_form(const std::string& text, const std::string& form) {
    const bool open = !form.empty() && form.back() == '*';
    const size_t length = open ? form.size() - 1 : form.size();
    if (text.size() < length || (!open && text.size() != length)) {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const bool fits = form[i] == '9'   ? isdigit(c) != 0
                          : form[i] == 'X' ? isxdigit(c) != 0
                                           : text[i] == form[i];
        if (!fits) {
            return false;
        }
    }
    return true;
}
