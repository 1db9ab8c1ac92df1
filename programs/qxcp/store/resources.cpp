#include "resources.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr int64_t size_limit = int64_t{64} << 20;  // what one message to an agent may hold
constexpr size_t name_limit = 200;

std::string list_path(const cp_store& store) {
    return store.folder + "/resources.json";
}

std::string content_path(const cp_store& store, const cp_resource& resource) {
    return store.folder + "/resources/" + resource.file;
}

std::string save(const cp_store& store) {
    json list = json::array();
    for (const cp_resource& resource : store.resources) {
        list.push_back({{"client", resource.client},
                        {"object", resource.object},
                        {"name", resource.name},
                        {"text", resource.text},
                        {"modified", resource.modified},
                        {"size", resource.size},
                        {"file", resource.file}});
    }
    const std::string path = list_path(store);
    std::ofstream out(path + ".tmp", std::ios::trunc);
    out << list.dump(1, ' ', false, json::error_handler_t::replace) << "\n";
    out.close();
    if (!out || rename((path + ".tmp").c_str(), path.c_str()) != 0) {
        return fmt::format("cannot write '{}': {}", path, std::strerror(errno));
    }
    return {};
}

std::string check_names(const cp_resource& resource) {
    for (const std::string* name : {&resource.object, &resource.name}) {
        if (name->empty() || name->size() > name_limit) {
            return "names of object and resource have 1 to 200 characters";
        }
    }
    const std::string name = "/" + resource.name + "/";
    if (name.find("/../") != std::string::npos || name.find("/./") != std::string::npos ||
        name.find("//") != std::string::npos) {
        return "the name of a resource is its file name in the agent's cache: relative, without '.' and '..'";
    }
    return {};
}

cp_resource* find(cp_store& store, int client, const std::string& object, const std::string& name) {
    for (cp_resource& resource : store.resources) {
        if (resource.client == client && resource.object == object && resource.name == name) {
            return &resource;
        }
    }
    return nullptr;
}

int next_number(const cp_store& store) {
    int highest = 0;
    for (const cp_resource& resource : store.resources) {
        highest = std::max(highest, std::atoi(resource.file.c_str()));
    }
    return highest + 1;
}

}  // namespace

std::string cp_resources_open(cp_store& store) {
    store.resources.clear();
    std::ifstream in(list_path(store));
    if (!in) {
        return {};  // none yet
    }
    const json list = json::parse(in, nullptr, false);
    if (!list.is_array()) {
        return fmt::format("'{}' is damaged: remove it, and add the resources again", list_path(store));
    }
    try {  // the library reports a value of a wrong type by an exception
        for (const json& j : list) {
            cp_resource resource;
            resource.client = j.value("client", resource.client);
            resource.object = j.value("object", "");
            resource.name = j.value("name", "");
            resource.text = j.value("text", false);
            resource.modified = j.value("modified", int64_t{0});
            resource.size = j.value("size", int64_t{0});
            resource.file = j.value("file", "");
            store.resources.push_back(resource);
        }
    } catch (const json::exception& fault) {
        return fmt::format("'{}' is damaged: {}", list_path(store), fault.what());
    }
    return {};
}

std::string cp_resource_add(cp_store& store, cp_resource resource, const std::string& path) {
    if (std::string fault = check_names(resource); !fault.empty()) {
        return fault;
    }
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        return fmt::format("'{}' is no file that the server can read", path);
    }
    resource.size = static_cast<int64_t>(fs::file_size(path, error));
    if (error || resource.size > size_limit) {
        return fmt::format("'{}' is larger than 64 MiB or cannot be read", path);
    }
    cp_resource* old = find(store, resource.client, resource.object, resource.name);
    resource.file = old != nullptr ? old->file : fmt::format("{}.bin", next_number(store));
    resource.modified = std::max<int64_t>(time(nullptr), old != nullptr ? old->modified + 1 : 0);
    // Beside the old version, which stays whole until the new one is. A copy has the mode of the file, too.
    const std::string fresh = content_path(store, resource) + ".tmp";
    fs::remove(fresh, error);
    fs::copy_file(path, fresh, error);
    if (!error) {
        resource.size = static_cast<int64_t>(fs::file_size(fresh, error));  // it may have grown meanwhile
    }
    if (!error && resource.size > size_limit) {
        error = std::make_error_code(std::errc::file_too_large);
    }
    if (!error) {
        fs::rename(fresh, content_path(store, resource), error);
    }
    if (error) {
        std::error_code ignored;  // the failure that counts is the first
        fs::remove(fresh, ignored);
        return fmt::format("cannot copy '{}': {}", path, error.message());
    }
    if (old != nullptr) {
        *old = resource;
    } else {
        store.resources.push_back(resource);
    }
    return save(store);
}

const cp_resource* cp_resource_find(const cp_store& store, int client, const std::string& object,
                                    const std::string& name) {
    return find(const_cast<cp_store&>(store), client, object, name);
}

std::optional<std::string> cp_resource_content(const cp_store& store, const cp_resource& resource) {
    std::ifstream in(content_path(store, resource), std::ios::binary);
    std::stringstream text;
    if (!in || (resource.size != 0 && !(text << in.rdbuf()))) {
        return std::nullopt;
    }
    std::string content = text.str();
    return static_cast<int64_t>(content.size()) == resource.size ? std::optional(content) : std::nullopt;
}
