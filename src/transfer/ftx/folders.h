// The folder that holds a file of a transfer, reached without being led astray.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "base/descriptor.h"

struct ftx_entry;

// A folder in two parts: what the order names, and what lies below it because of a wildcard.
struct ftx_place {
    std::string fixed;  // absolute
    std::string below;  // relative to it, may be empty; no part of it is ".."
    bool make = false;  // the last folder of `fixed` and all of `below` are made when they are missing
    bool links_below = false;

    std::string path() const { return below.empty() ? fixed : fixed + "/" + below; }
};

// The place of a file: the folders of `path`, of which the first `fixed` bytes are the order's own.
ftx_place ftx_place_of(std::string_view path, size_t fixed);

// Whether a link leads where its reader may be led: it belongs to the process's user, to root, or to the owner
// of the folder that holds it. Anybody else may have put it into a folder that is shared.
bool ftx_link_is_trusted(const struct stat& link, int folder);

// A path, completed by the home folder of the order's user.
std::string ftx_absolute(const ftx_entry* ftx, std::string_view name);

// Opens the folder as a place (O_PATH) into ftx->folder, which keeps the last one for the next file. Links are
// followed when they are trusted (EACCES otherwise), below the fixed part only with `links_below` (ELOOP
// otherwise). 0 or -1 with errno.
int ftx_enter_folder(ftx_entry* ftx, const ftx_place& place);
// The next call walks anew.
void ftx_leave_folder(ftx_entry* ftx);
