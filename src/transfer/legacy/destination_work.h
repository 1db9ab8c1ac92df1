// What the two files about the receiver's file share.
#pragma once

#include <cerrno>
#include <string>

#include "base/paths.h"
#include "identity/switch_user.h"
#include "transfer/legacy/area.h"

// Work as the user of the order, whose result is 0 or a descriptor, or -1 with errno.
template <class Work>
int as_owner(const FT_AREA* area, Work work) {
    qx7_error error;
    effective_user as(area->user(), &error);
    if (!as.ok()) {
        errno = error.qx_errno;
        return -1;
    }
    const int result = as.finish(work(), &error);
    if (result < 0 && error.qx_errno != 0) {
        errno = error.qx_errno;
    }
    return result;
}

// Opens the folder of `file` and takes the name in it. 0, or -1 with the area's Result.
int target_open_folder(FT_AREA* area);

// Of what is being written, for messages.
inline std::string working_path(const FT_AREA* area) {
    return std::string(path_folder_name(area->file)) + "/" + area->target.working_name;
}
