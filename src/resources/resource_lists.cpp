// The lists of stored resources and of those who need them.
#include <algorithm>

#include "resources/resources.h"

void AddItemToList(std::vector<key_entry>* list, const key_entry& entry) {
    const bool known = std::any_of(list->begin(), list->end(), [&](const key_entry& other) {
        return other.key == entry.key && other.ah_idnr == entry.ah_idnr && other.client == entry.client;
    });
    if (!known) {
        list->push_back(entry);
    }
}

bool RemoveEntryFromList(std::vector<key_entry>* list, int ah_idnr, int client) {
    return std::erase_if(*list, [&](const key_entry& entry) {
               return entry.ah_idnr == ah_idnr && entry.client == client;
           }) != 0;
}

resource_item* FindResourceInList(resource_list* list, std::string_view object, std::string_view resource,
                                  int client, int ah_idnr) {
    for (resource_item& item : *list) {
        const bool whose = ah_idnr == 0 ? item.cache_type == RESOURCE_CLIENT : item.ah_idnr == ah_idnr;
        if (whose && (client == 0 || item.client == client) && item.object_name == object &&
            item.resource_name == resource) {
            return &item;
        }
    }
    return nullptr;
}

resource_item* FindResourceWithKey(resource_list* list, int key) {
    for (resource_item& item : *list) {
        if (item.key == key) {
            return &item;
        }
    }
    return nullptr;
}

resource_list GetResourceFromList(resource_list* list, int key) {
    resource_list taken;
    for (auto at = list->begin(); at != list->end(); ++at) {
        if (at->key == key) {
            taken.splice(taken.begin(), *list, at);
            break;
        }
    }
    return taken;
}

void RemoveResourceFromList(resource_list* list, int key) {
    GetResourceFromList(list, key);
}
