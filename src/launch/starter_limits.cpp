#include "launch/starter_limits.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "base/descriptor.h"

namespace {

struct followed_limits {
    qx_descriptor file;  // the agent's own, kept open
    pid_t starter = 0;
    std::string text;  // what the file said when this starter got its limits
};
followed_limits followed;

// The number of descriptors is the order's matter: the agent has raised its own.
void give_limits(pid_t starter) {
    for (int at = 0; at < static_cast<int>(RLIM_NLIMITS); ++at) {
        const auto resource = static_cast<__rlimit_resource>(at);
        rlimit limit;
        if (resource != RLIMIT_NOFILE && getrlimit(resource, &limit) == 0) {
            // A hard limit that root has raised cannot be handed on without root's rights: jobs keep the
            // lower one.
            (void)prlimit(starter, resource, &limit, nullptr);
        }
    }
}

}  // namespace

void starter_follow_limits(pid_t starter) {
    if (!followed.file.valid()) {
        followed.file.reset(open("/proc/self/limits", O_RDONLY | O_CLOEXEC));
    }
    char text[4096];
    const ssize_t length = pread(followed.file.get(), text, sizeof text, 0);
    const std::string_view now(text, length < 0 ? 0 : static_cast<size_t>(length));
    if (now.empty() || (starter == followed.starter && now == followed.text)) {
        return;  // without /proc jobs have the limits of the starter's own start
    }
    give_limits(starter);
    followed.starter = starter;
    followed.text = now;
}
