// Prefixes of files: positions and digests, alike on both sides.
#pragma once

#include <cstddef>

#include "base/error.h"
#include "transfer/ftx/entry.h"

// Position and digest of the open file as it is now; the running digest goes on.
__ftx_restart_info ftx_restart_point(const ftx_entry* ftx, const ftx_elem* elem);

// Whether the open file begins with what the record tells; it stands at the record's position then. Without a
// digest (element without FTXE_MD5) nothing is read: 0, and the file is positioned. 0, or -1 for a difference
// or a failed read.
int check_fileConsistency(ftx_entry* ftx, ftx_elem* elem, const __ftx_restart_info& record, qx7_error* err);

// Without a digest all bytes of it are zero.
bool ftx_has_digest(const __ftx_restart_info& record);
// Feeds the running digest with the first `length` bytes of the open file, which stands behind them then. How
// many there were, or -1 with `err` (63028).
int64_t ftx_digest_prefix(ftx_entry* ftx, const ftx_elem* elem, int64_t length, qx7_error* err);
