// Are all mounted file systems local?
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/descriptor.h"
#include "base/text.h"
#include "jobs/launch_steps.h"

namespace {

// What answers from this host's own kernel and disks. A type that isn't listed counts as remote.
constexpr std::string_view local_types[] = {
    "ext2",     "ext3",     "ext4",        "xfs",      "btrfs",  "f2fs",     "zfs",       "jfs",
    "bcachefs", "overlay",  "tmpfs",       "ramfs",    "rootfs", "devtmpfs", "squashfs",  "erofs",
    "vfat",     "iso9660",  "proc",        "sysfs",    "devpts", "mqueue",   "hugetlbfs", "cgroup",
    "cgroup2",  "debugfs",  "tracefs",     "pstore",   "bpf",    "configfs", "nsfs",      "securityfs",
    "fusectl",  "efivarfs", "binfmt_misc", "selinuxfs"};

// What the kernel mounts on demand below these isn't where homes and shells are.
constexpr std::string_view kernel_folders[] = {"/proc/", "/sys/", "/dev/"};

bool read_all_lines_local(int fd) {
    std::string text;
    char buffer[16384];
    ssize_t count;
    if (lseek(fd, 0, SEEK_SET) != 0) {
        return false;
    }
    while ((count = read(fd, buffer, sizeof buffer)) != 0) {
        if (count < 0 && errno != EINTR) {
            return false;
        }
        text.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
    }
    for (std::string_view line : split_words(text, '\n')) {
        if (!line.empty() && !launch_mount_line_is_local(line)) {
            return false;
        }
    }
    return !text.empty();
}

}  // namespace

bool launch_mount_line_is_local(std::string_view line) {
    // Behind " - " stands the type; the fifth word is the mount point.
    const size_t separator = line.find(" - ");
    if (separator == std::string_view::npos) {
        return false;
    }
    const std::string_view place = get_word_delimited(line, ' ', 5);
    for (std::string_view folder : kernel_folders) {
        if (place.starts_with(folder)) {
            return true;
        }
    }
    const std::string_view behind = line.substr(separator + 3);
    const std::string_view type = behind.substr(0, behind.find(' '));
    for (std::string_view local : local_types) {
        if (local == type) {
            return true;
        }
    }
    return false;
}

bool launch_mounts_are_local() {
    static const qx_descriptor mounts(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    static bool known = false;
    static bool local = false;
    if (!mounts.valid()) {
        return false;
    }
    // The kernel reports an exceptional condition when a mount has changed since the last look.
    pollfd change = {mounts.get(), POLLPRI, 0};
    if (known && poll(&change, 1, 0) == 0) {
        return local;
    }
    local = read_all_lines_local(mounts.get());
    known = true;
    return local;
}
