// The stored resources of the server: files that jobs need, given to agents when they ask.
#pragma once

#include <optional>
#include <string>

#include "store.h"

// Reads the list. An empty text, or what is wrong.
std::string cp_resources_open(cp_store& store);
// Takes a copy of the file at `path`; an older version of the resource is replaced, and its time is always
// later than that of the one before. An empty text, or what is wrong.
std::string cp_resource_add(cp_store& store, cp_resource resource, const std::string& path);
const cp_resource* cp_resource_find(const cp_store& store, int client, const std::string& object,
                                    const std::string& name);
std::optional<std::string> cp_resource_content(const cp_store& store, const cp_resource& resource);
