// A directory of its own for a test, removed at the end, and small file helpers.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

struct scratch {
    std::string path;

    scratch() {
        char name[] = "/tmp/qx_base_XXXXXX";
        path = mkdtemp(name);
    }
    scratch(const scratch&) = delete;
    scratch& operator=(const scratch&) = delete;
    ~scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string at(const std::string& name) const { return path + "/" + name; }
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
