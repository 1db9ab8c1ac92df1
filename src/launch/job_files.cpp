#include "launch/job_files.h"

#include <cerrno>
#include <cstring>

#include "base/context.h"
#include "base/error_text.h"
#include "base/message_numbers.h"
#include "base/paths.h"
#include "identity/accounts.h"
#include "identity/user_files.h"
#include "log/log.h"

namespace {

bool lies_below(const std::string& path, const char* folder) {
    std::string prefix = path_clean(folder);
    if (prefix.empty() || prefix[0] != '/') {
        return false;
    }
    if (prefix.back() != '/') {
        prefix += '/';
    }
    return prefix.size() > 1 && path.size() > prefix.size() && path.starts_with(prefix);
}

}  // namespace

void job_remove_file(const char* path) {
    if (path[0] == 0 || strcmp(path, job_no_report) == 0) {
        return;
    }
    if (remove_on_order(path) != 0 && errno != ENOENT) {
        const int error_number = errno;
        __log(number_file_call, "%s",
              call_insert("FileRemove", std::string_view(path).substr(0, 255), error_number).c_str());
    }
}

bool job_file_is_ours(const EX_PCX* pcx, std::string_view path) {
    const std::string clean = path_clean(path);
    if (clean.find("/../") != std::string::npos || clean.ends_with("/..")) {
        return false;
    }
    return lies_below(clean, pcx->pcx_TmpFolder) || lies_below(clean, pcx->pcx_OutFolder);
}
