// Key stores of others, as far as the agent knows them: by name and hash of their library.
#pragma once

#include <cstdint>
#include <string_view>

// What stands against a plug-in: 0 for an empty name; 5011 for a name that is no plain file name; 5008 when
// "lib<name>.so" can't be read; 5016 when its hash is another than `hash` (null: any); 5004 for a good one,
// since keys are kept in the file store only.
int check_plugin(std::string_view name, const uint8_t hash[16]);
