// Acting as another user: borrowed for a single operation by the effective ids of the process, or for good in
// a child. The effective uid belongs to the whole process, so everything here runs under the effective-user
// lock.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/error.h"
#include "base/locks.h"

enum switch_result : int { SWITCH_DONE = 1, SWITCH_NOT_NEEDED = 0, SWITCH_FAILED = -1 };

// Becomes `userName`. 1 switched, 0 the process already is that user, -1 with `error` filled. The caller
// holds the lock.
int PrepToEffUser(const char* userName, qx7_error* error);
// Back to the user that the agent runs under; 1, 0, -1 as above.
int PrepToExUser(qx7_error* error);
// Sets groups, effective gid and effective uid. `gidList` ends in -1, its first entry is the primary gid, at
// most 65536 count. To root the uid comes first, to a user last, for only root may change groups. setgroups
// is always called; a list without a gid is EINVAL. Under an agent that is not root only the own user's ids
// can be "taken". 1, or -1 with `text` and errno; on -1 the process may hold a part of the identity until
// PrepToExUser mends it. `homeDir` does not enter: there is no chdir.
int SwitchToEffUser(const char* name, uid_t uid, const gid_t* gidList, const char* homeDir,
                    std::string* text);

// For a child that will not go back: setgid, initgroups, setuid, seteuid, setreuid, in this order. 0, or -1
// with 2000102 in `error`. `trace`: write what happens to the trace.
int subtitute_user_identity(uid_t uid, gid_t gid, const char* name, qx7_error* error, bool trace);

// The borrowed identity as a scope: takes the lock, switches, and goes back at its end. Nothing inside may
// use access(), which asks for the real uid. An empty name borrows nothing.
//
//     effective_user as(user, error);
//     if (!as.ok()) { return -1; }
//     … work …
//     return as.finish(result, error);
struct effective_user {
    effective_user(const char* userName, qx7_error* error);
    ~effective_user();
    effective_user(const effective_user&) = delete;
    effective_user& operator=(const effective_user&) = delete;

    bool ok() const { return state_ != SWITCH_FAILED; }
    // Goes back and releases the lock. `result` as it is, or -1 with the failure in `error` when the way back
    // failed and `result` had been good.
    int finish(int result, qx7_error* error);

  private:
    int go_back(qx7_error* error);

    int state_ = SWITCH_NOT_NEEDED;
    bool held_ = true;
};
