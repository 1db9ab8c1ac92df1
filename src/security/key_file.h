// The key store's file: sections with keys and values, read and replaced as a whole in memory that wipes
// itself. Section and key compare without regard to case and blanks.
#pragma once

#include <string>
#include <string_view>

#include "base/memory.h"

inline constexpr size_t key_file_limit = 1U << 20;  // bytes; a larger file is refused

// The whole file. 0; -1 with errno, ENOENT for a file that doesn't exist, EFBIG for one that is too large.
int ReadCfg(const std::string& file, qx_secret_text* content);

// The value as a view into the content; empty when there is none.
std::string_view SearchCfg(const qx_secret_text& content, std::string_view section, std::string_view key);

// Writes a value, or takes it away when it is empty, and replaces the file by rename; a new file belongs to
// the process. It has mode 0400 from its first byte on. 0; -1 with errno, EINVAL for names or values that
// can't stand in the file.
int UpdateCfg(const std::string& file, std::string_view section, std::string_view key,
              std::string_view value);
